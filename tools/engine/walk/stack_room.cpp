#include "tools/engine/walk/stack_room.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <pthread.h>
#include <sys/auxv.h>
#include <sys/resource.h>

namespace engine {
namespace {

// The kernel keeps this much free below the stack of a program, whatever its limit was when it started.
constexpr rlim_t kKeptFree = rlim_t{100} << 20;

// The end that the first thread's stack grows towards. The name of the program lies at its other end: asking for that
// costs less than reading all mappings of the process, as the C library does. 0: this is another thread, or it cannot
// be told.
uintptr_t end_of_first_stack() {
    const auto top = static_cast<uintptr_t>(::getauxval(AT_EXECFN));
    const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    rlimit limit{};
    if (top == 0 || ::getrlimit(RLIMIT_STACK, &limit) != 0) {
        return 0;
    }
    const auto size = static_cast<uintptr_t>(std::min(limit.rlim_cur, kKeptFree));
    return here < top && top > size && here > top - size ? top - size : 0;
}

// The same of any; 0: not known.
uintptr_t end_of_stack() {
    if (const uintptr_t end = end_of_first_stack(); end != 0) {
        return end;
    }
    pthread_attr_t attributes;
    void *end = nullptr;
    size_t size = 0;
    if (::pthread_getattr_np(::pthread_self(), &attributes) != 0) {
        return 0;
    }
    const bool known = ::pthread_attr_getstack(&attributes, &end, &size) == 0;
    ::pthread_attr_destroy(&attributes);
    return known ? reinterpret_cast<uintptr_t>(end) : 0;
}

} // namespace

void raise_stack_limit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_STACK, &limit) == 0 && limit.rlim_cur < std::min(limit.rlim_max, kKeptFree)) {
        limit.rlim_cur = std::min(limit.rlim_max, kKeptFree);
        (void)::setrlimit(RLIMIT_STACK, &limit); // Less deep trees still work.
    }
}

bool has_stack_room() {
    constexpr uintptr_t kept = uintptr_t{1} << 20; // for what a level calls: the library has paths on the stack
    static thread_local const uintptr_t end = end_of_stack();
    return reinterpret_cast<uintptr_t>(__builtin_frame_address(0)) > end + kept;
}

} // namespace engine
