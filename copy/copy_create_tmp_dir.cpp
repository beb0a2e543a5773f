// Making the staging directory of a relocation.
#include "copy/copy.h"

#include "support/report.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

using namespace vexo;

namespace {

int not_made(const char *path) {
    const int number = errno;
    set_error(number == ENOSPC ? Error::no_space : Error::make_directory, VEXO_HERE);
    VEXO_LOG_ERROR(VEXO_HERE, "Failed to mkdir: %s, reason=%s", path, ::strerror(number));
    return -1;
}

} // namespace

int VLIBCopyCreateTmpDir(const char *path, int keepExisting, mode_t mode) {
    if (path == nullptr || *path == '\0') {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    struct stat status;
    const bool there = ::stat(path, &status) == 0 && S_ISDIR(status.st_mode);
    if (there) {
        if (keepExisting != 0) {
            return 0;
        }
        // What an interrupted relocation staged is worth nothing.
        if (VLIBCExec("/bin/rm", "-Rf", path, nullptr) < 0) {
            set_error(Error::remove, VEXO_HERE);
            VEXO_LOG_ERROR(VEXO_HERE, "Failed to rmdir : %s", path);
            return -1;
        }
    }
    if (::mkdir(path, mode) == 0 || (there && errno == EEXIST)) {
        return 0;
    }
    return not_made(path);
}
