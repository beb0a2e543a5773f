// The one way to set the last error and the one way to log. Both take the place they report from the compiler.
//
// Helpers come in two kinds: those that report (they set the last error and log before they return a failure) and those
// that say nothing (they return a value or leave errno). The comment above a helper says which kind it is where it is
// not plain.
#pragma once

#include "platform/core.h"
#include "support/error_codes.h"
#include "support/keep_errno.h"

#include <cstddef>
#include <cstdint>
#include <syslog.h>

namespace vexo {

// Where a failure is reported from. `file` lives as long as the process: the platform keeps the pointer.
struct Place {
    const char *file;
    uint32_t line;
};

constexpr Place place_in(const char *file, uint32_t line) {
    return {file, line};
}

// A source file's name as log lines have it: the path from the tree's root, with the extension ".c".
template <size_t Size>
struct SourceName {
    char text[Size] = {};

    consteval SourceName(const char (&path)[Size]) { // NOLINT(google-explicit-constructor): a literal becomes a name
        size_t dot = 0;
        for (size_t at = 0; at < Size; ++at) {
            text[at] = path[at];
            if (path[at] == '.') {
                dot = at;
            }
        }
        static_assert(Size > 2);
        for (size_t at = dot + 1; at < Size; ++at) {
            text[at] = at == dot + 1 ? 'c' : '\0';
        }
    }
};
template <SourceName Name>
inline constexpr SourceName sourceName = Name; // NOLINT(bugprone-dynamic-static-initializers): a constant

inline uint32_t code_of(Error error) {
    return static_cast<uint32_t>(error);
}

inline Error last_error() {
    return static_cast<Error>(VLIBCErrGet());
}

inline void set_error(Error error, Place place) {
    VLIBCErrSetEx(code_of(error), place.file, place.line);
}

// Sets the last error and gives the result of a failing call, so that a refusal is one line.
[[nodiscard]] inline int fail(Error error, Place place) {
    set_error(error, place);
    return -1;
}

} // namespace vexo

// This file's name in log lines, and this place in it.
#define VEXO_SOURCE (::vexo::sourceName<__FILE__>.text)
#define VEXO_HERE VEXO_AT(VEXO_SOURCE)
// This place in an engine that reports under the name of the front door that runs it.
#define VEXO_AT(source) (::vexo::place_in((source), __LINE__))

// One log line: "%s:%d " with the place, then the text. The compiler checks the arguments against it. errno stays as it
// was: callers look at it behind the line.
#define VEXO_LOG(priority, place, text, ...)                                                                           \
    do {                                                                                                               \
        const ::vexo::KeepErrno vexoLogErrno;                                                                          \
        const ::vexo::Place vexoLogPlace = (place);                                                                    \
        syslog((priority), "%s:%d " text, vexoLogPlace.file,                                                           \
               static_cast<int>(vexoLogPlace.line) __VA_OPT__(, ) __VA_ARGS__);                                        \
    } while (false)
// The same with the name of a function behind the place: "%s:%d(%s) ".
#define VEXO_LOG_ERROR_IN(place, function, text, ...)                                                                  \
    do {                                                                                                               \
        const ::vexo::KeepErrno vexoLogErrno;                                                                          \
        const ::vexo::Place vexoLogPlace = (place);                                                                    \
        syslog(LOG_ERR, "%s:%d(%s) " text, vexoLogPlace.file, static_cast<int>(vexoLogPlace.line),                     \
               (function)__VA_OPT__(, ) __VA_ARGS__);                                                                  \
    } while (false)
// The same with the last error and where it was set behind the place: "%s:%d [0x%04X %s:%d]".
#define VEXO_LOG_LAST_ERROR(place, text, ...)                                                                          \
    do {                                                                                                               \
        const ::vexo::KeepErrno vexoLogErrno;                                                                          \
        const ::vexo::Place vexoLogPlace = (place);                                                                    \
        syslog(LOG_ERR, "%s:%d [0x%04X %s:%d]" text, vexoLogPlace.file, static_cast<int>(vexoLogPlace.line),           \
               VLIBCErrGet(), VLIBCErrorGetFile(), static_cast<int>(VLIBCErrorGetLine()) __VA_OPT__(, ) __VA_ARGS__);  \
    } while (false)
#define VEXO_LOG_ERROR(place, text, ...) VEXO_LOG(LOG_ERR, place, text __VA_OPT__(, ) __VA_ARGS__)
#define VEXO_LOG_DEBUG(place, text, ...) VEXO_LOG(LOG_DEBUG, place, text __VA_OPT__(, ) __VA_ARGS__)
