// Whether the program runs under the sanitizers.
#pragma once

namespace kit {

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#elif defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

} // namespace kit

// For tests that take descriptors or system calls away from C++ code: the sanitizer's look at an object needs some.
#define KIT_NOT_SANITIZED()                                                                                            \
    do {                                                                                                               \
        if (kit::kSanitized) {                                                                                         \
            GTEST_SKIP() << "the sanitizer's own looks at objects need the calls that are refused here";               \
        }                                                                                                              \
    } while (false)
