// The bits of VEXOShare.status as this platform gives them.
#pragma once

#include <cstdint>

namespace vexo {

inline constexpr uint32_t kShareEncrypted = 0x1; // "vexo:encrypted = yes"; between this platform's own libraries
inline constexpr uint32_t kShareIndexed = 0x20;  // "vexo:index = yes"

} // namespace vexo
