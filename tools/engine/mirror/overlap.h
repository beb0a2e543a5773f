// Whether two directories share anything.
#pragma once

#include <string>

namespace engine {

// Whether one of them is the other or lies in it, by whatever name: symbolic links are seen through, and so are volumes
// of which parts are mounted at several places. `other` need not exist.
bool overlap(const std::string &one, const std::string &other);

} // namespace engine
