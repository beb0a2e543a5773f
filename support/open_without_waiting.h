// Opening what a path leads to, whatever that is.
#pragma once

#include <cerrno>
#include <fcntl.h>
#include <sys/types.h>

namespace vexo {

// A FIFO without its other end must not hold the caller up. A file under another process's lease says so instead of
// waiting for it: that is waited for, as only regular files can be leased. A relative path goes down from `directory`.
inline int open_without_waiting(const char *path, int flags, mode_t mode = 0, int directory = AT_FDCWD) {
    const int fd = ::openat(directory, path, flags | O_NONBLOCK, mode);
    return fd < 0 && errno == EWOULDBLOCK ? ::openat(directory, path, flags, mode) : fd;
}

} // namespace vexo
