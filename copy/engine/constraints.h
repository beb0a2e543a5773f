// What a destination can hold, checked before any data moves.
#pragma once

#include <cstdint>

namespace vexo {

// Whether the volume of `dstFd`, of type `dstType`, has room for a file of `size` bytes. Only files over 128 MiB are
// checked, and no volume without free-space accounting. 0, or -1 reported under the name `source`: not enough room, or,
// with no error code, the volume could not be asked.
int check_free_space(int dstFd, int dstType, uint64_t size, const char *source);

} // namespace vexo
