// What the kernel counts in.
#pragma once

#include <cstdint>
#include <ctime>
#include <sys/types.h>

namespace engine {

inline constexpr int64_t kSecond = 1'000'000'000; // in nanoseconds
inline constexpr int64_t kStatBlock = 512;        // bytes in a block of st_blocks, whatever the volume's are
inline constexpr mode_t kModeBits = 07777;        // of st_mode, what chmod() takes

inline bool same_time(const timespec &one, const timespec &other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

} // namespace engine
