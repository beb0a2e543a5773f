#include "ea/files/positioned.h"

#include <cerrno>
#include <unistd.h>

namespace vexo {

bool read_at(int fd, void *to, size_t size, uint64_t offset) {
    auto *at = static_cast<uint8_t *>(to);
    while (size > 0) {
        errno = 0;
        const ssize_t got = ::pread(fd, at, size, static_cast<off_t>(offset));
        if (got <= 0) {
            return false;
        }
        at += got;
        size -= static_cast<size_t>(got);
        offset += static_cast<uint64_t>(got);
    }
    return true;
}

bool write_at(int fd, const void *from, size_t size, uint64_t offset) {
    const auto *at = static_cast<const uint8_t *>(from);
    while (size > 0) {
        const ssize_t written = ::pwrite(fd, at, size, static_cast<off_t>(offset));
        if (written <= 0) {
            errno = written == 0 ? EIO : errno;
            return false;
        }
        at += written;
        size -= static_cast<size_t>(written);
        offset += static_cast<uint64_t>(written);
    }
    return true;
}

} // namespace vexo
