// What a run has allocated and not freed, told by the sanitizer's hooks. A look for leaks goes through all memory of
// the process and costs many times what most operations do; where nothing is left there is nothing for it to find.
#pragma once

#include "tests/faults/system_calls.h"

#include <array>
#include <cstddef>

#ifdef FAULTS_SANITIZED
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*)(const volatile void *, size_t),
                                                         void (*)(const volatile void *));
extern "C" int __lsan_do_recoverable_leak_check(void);

namespace faults {

// For one process with one thread. What it has written down of memory must not lead to it, and so is inverted.
class LiveMemory {
  public:
    // From here on allocations count.
    static void watch() {
        s_isWatching = __sanitizer_install_malloc_and_free_hooks(allocated, freed) != 0;
        s_mayLeak = !s_isWatching;
    }
    static void stop() {
        s_isWatching = false;
        s_mayLeak = s_mayLeak || s_count != 0;
    }
    // Whether some of them were not freed and nothing leads to them.
    static bool hasLeaked() { return s_mayLeak && __lsan_do_recoverable_leak_check() != 0; }

  private:
    static void allocated(const volatile void *memory, size_t) {
        if (s_isWatching && s_count < s_live.size()) {
            s_live[s_count++] = ~reinterpret_cast<size_t>(memory);
        } else if (s_isWatching) {
            s_mayLeak = true;
        }
    }
    static void freed(const volatile void *memory) {
        for (size_t at = s_count; s_isWatching && at > 0; --at) {
            if (s_live[at - 1] == ~reinterpret_cast<size_t>(memory)) {
                s_live[at - 1] = s_live[--s_count];
                return;
            }
        }
    }

    static inline std::array<size_t, 4096> s_live;
    static inline size_t s_count = 0;
    static inline bool s_isWatching = false;
    static inline bool s_mayLeak = false; // what is still there, or more than there is room for
};

} // namespace faults
#endif
