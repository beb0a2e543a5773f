// What the conversions have in common: looking for a store, and giving up the directory of the old layout.
#include "ea/files/store_entry.h"
#include "ea/upgrade/upgrade.h"
#include "support/report.h"

#include <cerrno>

namespace vexo {

int look_for_store(const char *path) {
    struct stat status;
    if (look_in_store(path, status) == 0) {
        return 1;
    }
    return says_absent(errno) ? 0 : fail(Error::file_operation, VEXO_UPGRADE_HERE);
}

int remove_old_directory(const char *directory, int result) {
    const int number = errno;
    if (remove_store_directory(directory) == 0 || errno == ENOTEMPTY || errno == ENOENT) {
        errno = number;
        return result;
    }
    return fail(Error::remove, VEXO_UPGRADE_HERE);
}

} // namespace vexo
