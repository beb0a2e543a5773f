// Owners of what a call changes in the process and puts back: umask, effective user, signal mask, errno and the last
// error.
#pragma once

#include "platform/core.h"
#include "support/keep_errno.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

namespace vexo {

// The umask for a scope. Process-wide: callers serialise.
class UmaskGuard {
  public:
    explicit UmaskGuard(mode_t mask) : m_before(::umask(mask)) {}
    UmaskGuard(const UmaskGuard &) = delete;
    UmaskGuard &operator=(const UmaskGuard &) = delete;
    ~UmaskGuard() { ::umask(m_before); }

  private:
    mode_t m_before;
};

// No signal interrupts this thread for a scope; they arrive at its end. errno stays. Those that end a process for good
// (SIGKILL) arrive at once.
class SignalsHeld {
  public:
    SignalsHeld() {
        sigset_t all;
        ::sigfillset(&all);
        m_held = ::pthread_sigmask(SIG_SETMASK, &all, &m_before) == 0;
    }
    SignalsHeld(const SignalsHeld &) = delete;
    SignalsHeld &operator=(const SignalsHeld &) = delete;
    ~SignalsHeld() {
        if (m_held) {
            ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
        }
    }

  private:
    sigset_t m_before;
    bool m_held;
};

// A period as the effective user root. Process-wide: callers serialise. Says nothing: become_root() and restore() leave
// errno, and the caller logs. The destructor restores where restore() was not called, without touching errno.
class RootPeriod {
  public:
    RootPeriod() : m_before(::geteuid()) {}
    RootPeriod(const RootPeriod &) = delete;
    RootPeriod &operator=(const RootPeriod &) = delete;
    ~RootPeriod() {
        const int number = errno;
        (void)restore();
        errno = number;
    }

    // true at once for a process that is root already.
    [[nodiscard]] bool become_root() { return ::geteuid() == 0 || ::seteuid(0) == 0; }
    [[nodiscard]] bool restore() { return ::geteuid() == m_before || ::seteuid(m_before) == 0; }
    uid_t before() const { return m_before; }

  private:
    uid_t m_before;
};

// errno and the last error as they are now, put back at the end of the scope: clean-up never speaks over the cause.
class KeepErrors {
  public:
    KeepErrors() : m_errno(errno), m_code(VLIBCErrGet()), m_file(VLIBCErrorGetFile()), m_line(VLIBCErrorGetLine()) {}
    KeepErrors(const KeepErrors &) = delete;
    KeepErrors &operator=(const KeepErrors &) = delete;
    ~KeepErrors() {
        VLIBCErrSetEx(m_code, m_file, m_line);
        errno = m_errno;
    }

  private:
    int m_errno;
    uint32_t m_code;
    const char *m_file;
    uint32_t m_line;
};

} // namespace vexo
