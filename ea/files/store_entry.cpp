#include "ea/files/store_entry.h"

#include "ea/files/store_place.h"

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace vexo {

int look_in_store(const char *path, struct stat &out) {
    const StorePlace place(path);
    return place ? ::fstatat(place.directory(), place.name(), &out, AT_SYMLINK_NOFOLLOW) : -1;
}

bool says_absent(int number) {
    return number == ENOENT || number == ENOTDIR;
}

int rename_in_store(const char *from, const char *to) {
    const StorePlace source(from);
    if (!source) {
        return -1;
    }
    const StorePlace destination(to);
    return destination ? ::renameat(source.directory(), source.name(), destination.directory(), destination.name())
                       : -1;
}

int make_store_directory(const char *path, mode_t mode) {
    const StorePlace place(path);
    return place ? ::mkdirat(place.directory(), place.name(), mode) : -1;
}

int remove_store_directory(const char *path) {
    const StorePlace place(path);
    return place ? ::unlinkat(place.directory(), place.name(), AT_REMOVEDIR) : -1;
}

} // namespace vexo
