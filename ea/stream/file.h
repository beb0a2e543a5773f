// I/O on a stream file's borrowed descriptor, and its header read from it.
#pragma once

#include "ea/ea.h"
#include "support/heap.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace vexo::eas {

// These say nothing; errno is the system's where a call failed, and ENOSPC after a short write.
bool seek_to(int fd, uint64_t offset);
// All of it, or it has failed: a file that ends early is a short read.
bool read_all(int fd, void *to, size_t size);
bool write_all(int fd, const void *from, size_t size);
// Bytes in the file; nothing when they cannot be told.
std::optional<uint64_t> size_of(int fd);
// Whether the file is empty, as the end of its descriptor tells; leaves the position there.
bool is_empty(int fd);

// Reads the header; the position is then behind it when the file has an attribute block. Reports under `source`: 0x0D00
// for an entry count that is too high, 0x0A00 for what cannot be read.
int read_header(int fd, VEXOEASHeader &header, const char *source);

// Reads records through a small buffer, from the descriptor's position on.
class RecordReader {
  public:
    explicit RecordReader(int fd) : m_fd(fd) {}
    // false: the file ends before.
    [[nodiscard]] bool bytes(void *to, size_t size);
    // What is skipped need not be in the file.
    void skip(size_t size);

  private:
    bool refill();

    int m_fd;
    size_t m_at = 0;
    size_t m_filled = 0;
    uint8_t m_buffer[4096];
};

// Whether descriptor and handle are there, as every operation asks first.
inline bool is_open(const VEXOEAS *eas) {
    return eas != nullptr && eas->fd >= 0;
}
inline bool is_locked(const VEXOEAS &eas) {
    return eas.lockState == F_RDLCK || eas.lockState == F_WRLCK;
}

} // namespace vexo::eas
