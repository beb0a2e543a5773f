// A destination path that a volume of the FAT family takes: the characters it reserves replaced in the last component.
#include "transfer/fat_name.h"

#include "support/heap.h"
#include "support/report.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <libgen.h>
#include <string_view>

namespace vexo {
namespace {

// The name under which it reports: that of its front door.
constexpr char kSource[] = "copy/str_replace_fat_reserved_char.c";
Place here(uint32_t line) {
    return place_in(kSource, line);
}

constexpr std::string_view kReserved = "\"*/:<>?\\|\n\r";

void replace_reserved(char *component) {
    for (char *at = component; *at != '\0'; ++at) {
        if (kReserved.find(*at) != std::string_view::npos) {
            *at = '-';
        }
    }
}

} // namespace

int replace_fat_reserved(const char *path, char *out, int size) {
    if (out == nullptr || size < 1 || path == nullptr) {
        return fail(Error::invalid_argument, here(__LINE__));
    }
    if (path[0] != '/' || path[1] == '\0') {
        return fail(Error::invalid_argument, here(__LINE__));
    }
    // basename() and dirname() write into their argument, so each has its own.
    HeapString forComponent(path);
    HeapString forParent(path);
    if (!forComponent || !forParent) {
        return fail(Error::out_of_memory, here(__LINE__));
    }
    char *component = ::basename(forComponent.get());
    const char *parent = ::dirname(forParent.get());
    replace_reserved(component);
    const char *above = std::strcmp(parent, "/") == 0 ? "" : parent;
    std::snprintf(out, static_cast<size_t>(size), "%s/%s", above, component);
    return 0;
}

} // namespace vexo
