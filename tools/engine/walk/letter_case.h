// Names of two letter cases that a volume may take for one.
#pragma once

#include <string>

namespace engine {

// The name in one letter case, for a comparison with others only.
std::string folded(const std::string &name);

} // namespace engine
