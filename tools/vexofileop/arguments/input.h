// Reading what others send through a file or stdin, as a whole.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

// The most that is taken of what does not say before how much it is: of a pipe, a device, a file of the kernel's.
constexpr uint64_t kMostWithoutSize = uint64_t{64} << 20;

// Everything in a file; "-" is stdin. A stop signal ends it with what has come so far. Throws engine::Failure, also for
// more than `most` bytes, or of what does not say its size for more than `mostWithoutSize`: no more are read than it
// takes to know.
std::string read_input(const std::string &path, uint64_t most = UINT64_MAX, uint64_t mostWithoutSize = UINT64_MAX);

} // namespace tool
