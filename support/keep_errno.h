// errno as it is now, put back at the end of the scope.
#pragma once

#include <cerrno>

namespace vexo {

class KeepErrno {
  public:
    KeepErrno() : m_errno(errno) {}
    KeepErrno(const KeepErrno &) = delete;
    KeepErrno &operator=(const KeepErrno &) = delete;
    ~KeepErrno() { errno = m_errno; }

  private:
    int m_errno;
};

} // namespace vexo
