// Stands in for a kernel with the DOS-attribute calls: a seccomp filter turns system call 803 and fcntl with the
// commands 0x201 to 0x204 into a signal, whose handler records the call and answers it. Every other call is the
// kernel's. x86-64; once installed it stays for the life of the process and its children.
#pragma once

#include <string>
#include <vector>

namespace bare {

struct AttributeCall {
    std::string path; // of call 803; empty for fcntl
    int fd;           // of fcntl; -1 for call 803
    int command;
    bool operator==(const AttributeCall &) const = default;
};

class AttributeTrap {
  public:
    // Empty, or the reason why the calls cannot be trapped here.
    static std::string install();
    // The calls since the last reset(), the latest 64 at most.
    static std::vector<AttributeCall> calls();
    // What calls answer from now on: `result`, or -1 with `error` when that is not 0.
    static void answer(long result, int error = 0);
    // Forgets the calls; they answer 0 again.
    static void reset();
};

} // namespace bare
