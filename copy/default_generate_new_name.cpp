// The stock rename callback: "film.mkv", "film (1).mkv", "film (2).mkv" and so on.
#include "copy/copy.h"

#include "support/heap.h"
#include "support/report.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

using namespace vexo;

namespace {

constexpr int kLastNumber = 98; // callers count on the bound as it is

// Cuts the extension off and gives what followed its dot; null when there is none. The dot that a hidden file's name
// begins with is part of the name.
const char *split_extension(char *path) {
    char *slash = std::strrchr(path, '/');
    char *name = slash == nullptr ? path : slash + 1;
    char *dot = std::strrchr(name, '.');
    if (dot == nullptr || dot == name) {
        return nullptr;
    }
    *dot = '\0';
    return dot + 1;
}

} // namespace

int Default_GenerateNewName(const char *path, char *out, int size) {
    if (path == nullptr || out == nullptr || size < 1) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    HeapString stem(path); // a copy: `out` may be `path`
    if (!stem) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    const char *extension = split_extension(stem.get());
    const auto room = static_cast<size_t>(size);
    for (int number = 1; number <= kLastNumber; ++number) {
        const int length = extension == nullptr ? std::snprintf(out, room, "%s (%d)", stem.get(), number)
                                                : std::snprintf(out, room, "%s (%d).%s", stem.get(), number, extension);
        if (length < 0 || length >= size) {
            return fail(Error::invalid_argument, VEXO_HERE);
        }
        struct stat existing;
        if (::stat(out, &existing) != 0 && errno == ENOENT) {
            return 0;
        }
    }
    return -1;
}
