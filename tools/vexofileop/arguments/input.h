// Reading what others send through a file or stdin, as a whole.
#pragma once

#include <string>

namespace tool {

// Everything in a file; "-" is stdin. A stop signal ends it with what has come so far. Throws engine::Failure.
std::string read_input(const std::string &path);

} // namespace tool
