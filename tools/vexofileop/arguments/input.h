// Reading what others send through a file or stdin, as a whole.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

// Everything in a file; "-" is stdin. A stop signal ends it with what has come so far. Throws engine::Failure, also for
// more than `most` bytes, of which no more are read than it takes to know.
std::string read_input(const std::string &path, uint64_t most = UINT64_MAX);

} // namespace tool
