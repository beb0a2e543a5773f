#include "tests/faults/system_calls.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/futex.h>
#include <linux/seccomp.h>
#include <map>
#include <poll.h>
#include <sched.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace faults {
namespace {

constexpr int kPatienceMs = 300'000;

struct CallKind {
    const char *name;
    int pathArgument; // -1: none
    std::vector<int> errors;
};

const std::map<int, CallKind> &kinds() {
    static const auto *table = new std::map<int, CallKind>{
        {SYS_read, {"read", -1, {EIO, EINTR}}},
        {SYS_pread64, {"pread", -1, {EIO, EINTR}}},
        {SYS_write, {"write", -1, {EIO, ENOSPC, EDQUOT, EFBIG, EINTR}}},
        {SYS_pwrite64, {"pwrite", -1, {EIO, ENOSPC, EDQUOT, EFBIG, EINTR}}},
        {SYS_lseek, {"lseek", -1, {EIO}}},
        {SYS_stat, {"stat", 0, {EIO, EACCES, ENOENT}}},
        {SYS_lstat, {"lstat", 0, {EIO, EACCES, ENOENT}}},
        {SYS_newfstatat, {"newfstatat", 1, {EIO, EACCES, ENOENT}}},
        {SYS_statx, {"statx", 1, {EIO, EACCES, ENOENT}}},
        {SYS_fstat, {"fstat", -1, {EIO}}},
        {SYS_statfs, {"statfs", 0, {EIO, EACCES}}},
        {SYS_fstatfs, {"fstatfs", -1, {EIO}}},
        {SYS_access, {"access", 0, {EIO, EACCES, ENOENT}}},
        {SYS_faccessat, {"faccessat", 1, {EIO, EACCES, ENOENT}}},
        {SYS_faccessat2, {"faccessat2", 1, {EIO, EACCES, ENOENT}}},
        {SYS_getdents64, {"getdents", -1, {EIO, ENOENT}}},
        {SYS_readlink, {"readlink", 0, {EIO, EACCES}}},
        {SYS_readlinkat, {"readlinkat", 1, {EIO, EACCES}}},
        {SYS_fallocate, {"fallocate", -1, {EIO, ENOSPC, EDQUOT, EOPNOTSUPP, EINTR}}},
        {SYS_ftruncate, {"ftruncate", -1, {EIO, ENOSPC, EDQUOT, EINTR}}},
        {SYS_truncate, {"truncate", 0, {EIO, ENOSPC, EDQUOT}}},
        {SYS_fsync, {"fsync", -1, {EIO, ENOSPC, EDQUOT}}},
        {SYS_sendfile, {"sendfile", -1, {EIO, ENOSPC}}},
        {SYS_copy_file_range, {"copy_file_range", -1, {EIO, ENOSPC, EXDEV}}},
        {SYS_mkdir, {"mkdir", 0, {EIO, EACCES, ENOSPC, EDQUOT, EROFS}}},
        {SYS_mkdirat, {"mkdirat", 1, {EIO, EACCES, ENOSPC, EDQUOT, EROFS}}},
        {SYS_rmdir, {"rmdir", 0, {EIO, EACCES, EBUSY}}},
        {SYS_unlink, {"unlink", 0, {EIO, EACCES, EBUSY, EROFS}}},
        {SYS_unlinkat, {"unlinkat", 1, {EIO, EACCES, EBUSY, EROFS}}},
        {SYS_rename, {"rename", 0, {EIO, EACCES, ENOSPC, EDQUOT, EROFS, EXDEV}}},
        {SYS_renameat, {"renameat", 1, {EIO, EACCES, ENOSPC, EDQUOT, EROFS, EXDEV}}},
        {SYS_renameat2, {"renameat2", 1, {EIO, EACCES, ENOSPC, EDQUOT, EROFS, EXDEV}}},
        {SYS_symlink, {"symlink", 1, {EIO, EACCES, ENOSPC, EDQUOT, EROFS}}},
        {SYS_link, {"link", 1, {EIO, EACCES, ENOSPC, EROFS}}},
        {SYS_chmod, {"chmod", 0, {EIO, EPERM, EROFS}}},
        {SYS_fchmod, {"fchmod", -1, {EIO, EPERM, EROFS}}},
        {SYS_fchmodat, {"fchmodat", 1, {EIO, EPERM, EROFS}}},
        {SYS_chown, {"chown", 0, {EIO, EPERM, EDQUOT}}},
        {SYS_lchown, {"lchown", 0, {EIO, EPERM, EDQUOT}}},
        {SYS_fchown, {"fchown", -1, {EIO, EPERM, EDQUOT}}},
        {SYS_fchownat, {"fchownat", 1, {EIO, EPERM, EDQUOT}}},
        {SYS_utimensat, {"utimensat", 1, {EIO, EPERM}}},
        {SYS_getxattr, {"getxattr", 0, {EIO, EACCES, ENOMEM}}},
        {SYS_lgetxattr, {"lgetxattr", 0, {EIO, EACCES, ENOMEM}}},
        {SYS_fgetxattr, {"fgetxattr", -1, {EIO, ENOMEM}}},
        {SYS_setxattr, {"setxattr", 0, {EIO, EPERM, ENOSPC, EDQUOT, EOPNOTSUPP}}},
        {SYS_lsetxattr, {"lsetxattr", 0, {EIO, EPERM, ENOSPC, EDQUOT, EOPNOTSUPP}}},
        {SYS_fsetxattr, {"fsetxattr", -1, {EIO, EPERM, ENOSPC, EDQUOT, EOPNOTSUPP}}},
        {SYS_listxattr, {"listxattr", 0, {EIO, EACCES, ENOMEM}}},
        {SYS_llistxattr, {"llistxattr", 0, {EIO, EACCES, ENOMEM}}},
        {SYS_flistxattr, {"flistxattr", -1, {EIO, ENOMEM}}},
        {SYS_removexattr, {"removexattr", 0, {EIO, EPERM, ENOSPC}}},
        {SYS_lremovexattr, {"lremovexattr", 0, {EIO, EPERM, ENOSPC}}},
        {SYS_fremovexattr, {"fremovexattr", -1, {EIO, EPERM, ENOSPC}}},
        {SYS_ioctl, {"ioctl", -1, {EIO, EOPNOTSUPP, ENOSPC}}},

        {SYS_getcwd, {"getcwd", -1, {ENOENT}}},
        {SYS_chdir, {"chdir", 0, {EIO, EACCES}}},
        {SYS_fchdir, {"fchdir", -1, {EIO}}},
        {SYS_dup, {"dup", -1, {EMFILE}}},
        {SYS_socket, {"socket", -1, {EMFILE, ENOMEM}}},
        {SYS_connect, {"connect", -1, {ECONNREFUSED, EINTR}}},
        {SYS_clone, {"clone", -1, {EAGAIN, ENOMEM}}},
        {SYS_clone3, {"clone3", -1, {EAGAIN, ENOMEM}}},
        {SYS_fork, {"fork", -1, {EAGAIN, ENOMEM}}},
        {SYS_vfork, {"vfork", -1, {EAGAIN, ENOMEM}}},
        {SYS_wait4, {"wait4", -1, {EINTR}}},
        {SYS_pipe2, {"pipe2", -1, {EMFILE}}},
        {SYS_mmap, {"mmap", -1, {ENOMEM}}},
        {SYS_brk, {"brk", -1, {}}},
        {SYS_close, {"close", -1, {}}},
        {SYS_munmap, {"munmap", -1, {}}},
    };
    return *table;
}

std::vector<int> openErrors(uint64_t flags) {
    std::vector<int> errors = {EIO, EACCES, ENOENT, EMFILE, ENOMEM};
    if ((flags & O_ACCMODE) != O_RDONLY) {
        errors.push_back(EROFS);
    }
    if ((flags & O_CREAT) != 0) {
        errors.insert(errors.end(), {ENOSPC, EDQUOT});
    }
    return errors;
}

struct Shared {
    std::atomic<int> ready;    // 1: the child's next call installs the filter
    std::atomic<int> listener; // the child's number of it, 0 until it is there
    std::atomic<int> fetched;  // 1: the supervisor has it
    volatile int open;
};

void wait(std::atomic<int> &word, int value, time_t seconds) {
    const timespec most{seconds, 0};
    ::syscall(SYS_futex, &word, FUTEX_WAIT, value, &most, nullptr, 0);
}

void wake(std::atomic<int> &word) {
    ::syscall(SYS_futex, &word, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

int seccomp(unsigned operation, unsigned flags, void *arguments) {
    return static_cast<int>(::syscall(SYS_seccomp, operation, flags, arguments));
}

// The sanitizer's own calls come and go from run to run, and it ends the process when it gets no memory. Its look for
// leaks makes most of all the calls.
#ifdef FAULTS_SANITIZED
constexpr std::array kUnasked = {SYS_exit_group, SYS_rt_sigreturn, SYS_mmap,   SYS_munmap,     SYS_mremap,
                                 SYS_madvise,    SYS_mprotect,     SYS_ptrace, SYS_sched_yield};
#else
constexpr std::array kUnasked = {SYS_exit_group, SYS_rt_sigreturn};
#endif

// Every call but those above asks the supervisor, or only those of one number.
std::vector<sock_filter> filterFor(const Plan &plan) {
    constexpr sock_filter load = {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)};
    constexpr sock_filter ask = {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_USER_NOTIF};
    constexpr sock_filter allow = {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW};
    if (plan.alike) {
        return {load, {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, static_cast<uint32_t>(plan.number)}, ask, allow};
    }
    std::vector<sock_filter> code = {load};
    for (size_t at = 0; at < kUnasked.size(); ++at) {
        const auto behind = static_cast<uint8_t>(kUnasked.size() - at);
        code.push_back({BPF_JMP | BPF_JEQ | BPF_K, behind, 0, static_cast<uint32_t>(kUnasked[at])});
    }
    code.insert(code.end(), {ask, allow});
    return code;
}

int installFilter(const Plan &plan) {
    std::vector<sock_filter> code = filterFor(plan);
    sock_fprog program{static_cast<unsigned short>(code.size()), code.data()};
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    return seccomp(SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program);
}

std::string readString(pid_t process, uint64_t address) {
    std::array<char, PATH_MAX> text{};
    iovec local{text.data(), text.size() - 1};
    iovec remote{reinterpret_cast<void *>(address), text.size() - 1};
    ssize_t got = ::process_vm_readv(process, &local, 1, &remote, 1, 0);
    for (size_t size = 256; got < 0 && size >= 16; size /= 2) { // near the end of a mapping
        local.iov_len = remote.iov_len = size;
        got = ::process_vm_readv(process, &local, 1, &remote, 1, 0);
    }
    return got < 0 ? std::string() : std::string(text.data());
}

SystemCall callOf(const seccomp_notif &notice, bool withPath) {
    SystemCall call;
    call.number = notice.data.nr;
    std::memcpy(call.arguments, notice.data.args, sizeof call.arguments);
    const auto kind = kinds().find(call.number);
    const int argument = call.number == SYS_openat ? 1
                         : call.number == SYS_open ? 0
                         : kind == kinds().end()   ? -1
                                                   : kind->second.pathArgument;
    if (argument >= 0 && withPath) {
        call.path = readString(static_cast<pid_t>(notice.pid), call.arguments[argument]);
    }
    return call;
}

class Supervisor {
  public:
    Supervisor(const Plan &plan, Shared *shared, pid_t child) : m_plan(plan), m_shared(shared), m_child(child) {}

    Outcome run() {
        const int listener = fetchListener();
        while (listener >= 0 && serve(listener)) {
        }
        if (listener >= 0) {
            ::close(listener);
        }
        ::waitpid(m_child, &m_outcome.status, 0);
        return std::move(m_outcome);
    }

  private:
    // The child cannot hand it over, since a call for that might wait for us: it keeps its own until it was fetched.
    // Until it is about to have one this process sleeps, for a busy machine may let it wait long.
    int fetchListener() {
        while (m_shared->listener.load() == 0) {
            if (m_shared->ready.load() == 0) {
                wait(m_shared->ready, 0, 1);
            }
            int status = 0;
            if (::waitpid(m_child, &status, WNOHANG | WNOWAIT) == m_child) {
                return -1;
            }
            ::sched_yield();
        }
        const int process = static_cast<int>(::syscall(SYS_pidfd_open, m_child, 0));
        const int listener = static_cast<int>(::syscall(SYS_pidfd_getfd, process, m_shared->listener.load(), 0));
        ::close(process);
        m_shared->fetched.store(1);
        wake(m_shared->fetched);
        return listener;
    }

    bool serve(int listener) {
        pollfd ready{listener, POLLIN, 0};
        const int events = ::poll(&ready, 1, kPatienceMs);
        if (events == 0) {
            m_outcome.hung = true;
            ::kill(m_child, SIGKILL);
            return false;
        }
        if ((ready.revents & POLLIN) == 0) {
            return events < 0 && errno == EINTR; // nobody is left under the filter
        }
        seccomp_notif notice{};
        if (::ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &notice) != 0) {
            return errno == ENOENT || errno == EINTR;
        }
        seccomp_notif_resp response{};
        response.id = notice.id;
        response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        if (m_shared->open != 0 && static_cast<pid_t>(notice.pid) == m_child) {
            decide(notice, response);
        }
        ::ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
        return true;
    }

    void decide(const seccomp_notif &notice, seccomp_notif_resp &response) {
        m_outcome.calls.push_back(callOf(notice, m_plan.action == Plan::Action::watch));
        ++m_counted;
        if (m_plan.action == Plan::Action::watch || m_outcome.reached || m_counted != m_plan.at + 1) {
            return;
        }
        if (m_plan.action == Plan::Action::fail && m_plan.number != notice.data.nr) {
            return; // not every run makes the same calls
        }
        m_outcome.reached = true;
        if (m_plan.action == Plan::Action::kill) {
            ::kill(m_child, SIGKILL);
            response.flags = 0; // else it may still be made, if the answer comes before the signal
            response.error = -EINTR;
        } else if (m_plan.action == Plan::Action::meet) {
            m_plan.meeting();
        } else {
            response.flags = 0;
            response.error = -m_plan.error;
        }
    }

    const Plan &m_plan;
    Shared *m_shared;
    pid_t m_child;
    Outcome m_outcome;
    size_t m_counted = 0; // calls in the window
};

[[noreturn]] void runChild(const Plan &plan, Shared *shared, const std::function<void(Window &)> &body) {
    shared->ready.store(1);
    wake(shared->ready);
    const int listener = installFilter(plan);
    if (listener < 0) {
        ::_exit(99);
    }
    shared->listener.store(listener);
    while (shared->fetched.load() == 0) {
        wait(shared->fetched, 0, 1);
    }
    ::syscall(SYS_close, listener);
    Window window(&shared->open);
    body(window);
    window.close();
    ::_exit(0);
}

} // namespace

std::string nameOf(const SystemCall &call) {
    switch (call.number) {
    case SYS_openat:
        return "openat";
    case SYS_open:
        return "open";
    case SYS_fcntl:
        return "fcntl " + std::to_string(call.arguments[1]);
    default: {
        const auto kind = kinds().find(call.number);
        return kind == kinds().end() ? "call " + std::to_string(call.number) : kind->second.name;
    }
    }
}

std::vector<int> plausibleErrors(const SystemCall &call) {
    switch (call.number) {
    case SYS_openat:
        return openErrors(call.arguments[2]);
    case SYS_open:
        return openErrors(call.arguments[1]);
    case SYS_fcntl:
        return call.arguments[1] == F_SETLK ? std::vector<int>{EAGAIN, ENOLCK, EINTR} : std::vector<int>{};
    default: {
        const auto kind = kinds().find(call.number);
        return kind == kinds().end() ? std::vector<int>{} : kind->second.errors;
    }
    }
}

Plan planAt(Plan::Action action, const std::vector<SystemCall> &calls, size_t at, int error) {
    const int number = calls.at(at).number;
    const auto here = calls.begin() + static_cast<std::ptrdiff_t>(at);
    const auto before =
        std::count_if(calls.begin(), here, [&](const SystemCall &call) { return call.number == number; });
    return {.action = action, .at = static_cast<size_t>(before), .error = error, .number = number, .alike = true};
}

std::string unavailable() {
    static const std::string reason = [] {
        const Outcome outcome = supervise({}, [](Window &) {});
        return WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == 0
                   ? std::string()
                   : std::string("the kernel refuses a supervisor of system calls");
    }();
    return reason;
}

Outcome supervise(const Plan &plan, const std::function<void(Window &)> &body) {
    void *memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::runtime_error("no shared memory");
    }
    auto *shared = new (memory) Shared{};
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::runtime_error("fork failed");
    }
    if (child == 0) {
        runChild(plan, shared, body);
    }
    Outcome outcome = Supervisor(plan, shared, child).run();
    ::munmap(memory, sizeof(Shared));
    return outcome;
}

} // namespace faults
