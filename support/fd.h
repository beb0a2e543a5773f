// Owner of a file descriptor.
#pragma once

#include "support/keep_errno.h"

#include <unistd.h>

namespace vexo {

class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : m_fd(fd) {}
    Fd(Fd &&other) noexcept : m_fd(other.release()) {}
    Fd &operator=(Fd &&other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd() { reset(); }

    explicit operator bool() const { return m_fd >= 0; }
    int get() const { return m_fd; }
    // The number itself, for a callback that may put another descriptor in its place; what it holds is closed here.
    int *slot() { return &m_fd; }

    int release() {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    // What the close says is nobody's business here, and what was said before it stays: who asks for it closes what
    // release() gives.
    void reset(int fd = -1) {
        if (m_fd >= 0) {
            const KeepErrno keep;
            ::close(m_fd);
        }
        m_fd = fd;
    }

  private:
    int m_fd = -1;
};

} // namespace vexo
