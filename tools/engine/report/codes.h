// The library's codes that the engine looks for, or gives itself.
#pragma once

#include <cstdint>

namespace engine {

inline constexpr uint32_t kOutOfMemory = 0x0200;
inline constexpr uint32_t kLocked = 0x0400;
inline constexpr uint32_t kDestinationMissing = 0x0600;
inline constexpr uint32_t kMissing = 0x0700;
inline constexpr uint32_t kNoFreeName = 0x0800;
inline constexpr uint32_t kSeekFailed = 0x2600;
inline constexpr uint32_t kNoSpace = 0x2900;
inline constexpr uint32_t kFileOperation = 0x2A00;
inline constexpr uint32_t kOther = 0x8000;
inline constexpr uint32_t kReadOnly = 0x8400;
inline constexpr uint32_t kNotADirectory = 0xA000;
inline constexpr uint32_t kIsDirectory = 0xA200;
inline constexpr uint32_t kExists = 0xA300;
inline constexpr uint32_t kTooLargeForFat = 0xA400;
inline constexpr uint32_t kFileTooLarge = 0xAA00;
inline constexpr uint32_t kNameTooLong = 0xC300;
inline constexpr uint32_t kOwnerLost = 0xFA00;

} // namespace engine
