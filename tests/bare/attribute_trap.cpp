#include "tests/bare/attribute_trap.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

namespace bare {
namespace {

constexpr unsigned kAttributeCall = 803;
constexpr unsigned kFirstCommand = 0x201;
constexpr unsigned kLastCommand = 0x204;

// The handler allocates nothing.
struct Record {
    std::array<char, PATH_MAX> path;
    int fd;
    int command;
};
std::array<Record, 64> records;
size_t count = 0;
long answered = 0;
int failure = 0;

void onTrap(int, siginfo_t *info, void *data) {
    greg_t *const registers = static_cast<ucontext_t *>(data)->uc_mcontext.gregs;
    Record &record = records[count++ % records.size()];
    record.command = static_cast<int>(registers[REG_RSI]);
    record.path[0] = '\0';
    record.fd = -1;
    if (info->si_syscall == static_cast<int>(kAttributeCall)) {
        std::strncpy(record.path.data(), reinterpret_cast<const char *>(registers[REG_RDI]), record.path.size() - 1);
    } else {
        record.fd = static_cast<int>(registers[REG_RDI]);
    }
    registers[REG_RAX] = failure != 0 ? -failure : answered;
}

std::string reason(const char *what) {
    return std::string(what) + ": " + std::strerror(errno);
}

} // namespace

std::string AttributeTrap::install() {
    struct sigaction action {};
    action.sa_sigaction = onTrap;
    action.sa_flags = SA_SIGINFO;
    if (::sigaction(SIGSYS, &action, nullptr) != 0) {
        return reason("sigaction");
    }
    const auto load = [](size_t offset) -> sock_filter {
        return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offset));
    };
    std::array<sock_filter, 10> code = {{
        load(offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 0, 6),
        load(offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kAttributeCall, 5, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fcntl, 0, 3),
        load(offsetof(seccomp_data, args) + sizeof(uint64_t)), // the low half of the second argument
        BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, kFirstCommand, 0, 1),
        BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, kLastCommand, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
    }};
    const sock_fprog program = {static_cast<unsigned short>(code.size()), code.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return reason("PR_SET_NO_NEW_PRIVS");
    }
    if (::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) != 0) {
        return reason("seccomp");
    }
    return {};
}

std::vector<AttributeCall> AttributeTrap::calls() {
    std::vector<AttributeCall> calls;
    for (size_t at = count > records.size() ? count - records.size() : 0; at < count; ++at) {
        const Record &record = records[at % records.size()];
        calls.push_back({record.path.data(), record.fd, record.command});
    }
    return calls;
}

void AttributeTrap::answer(long result, int error) {
    answered = result;
    failure = error;
}

void AttributeTrap::reset() {
    count = 0;
    answer(0);
}

} // namespace bare
