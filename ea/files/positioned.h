// Reading and writing the whole of a piece of a file at its place. Nothing here reports: results and errno only.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vexo {

// Reads `size` bytes at `offset`. false, with errno, when they are not all there (errno is 0 at the end of the file).
bool read_at(int fd, void *to, size_t size, uint64_t offset);
// Writes all of it at `offset`. false with errno.
bool write_at(int fd, const void *from, size_t size, uint64_t offset);

} // namespace vexo
