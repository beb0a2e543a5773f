// Opens a file with the assurance that it is a regular one.
#include "copy/copy.h"

#include "copy/engine/open_regular.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/open_without_waiting.h"
#include "support/report.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

using namespace vexo;

namespace {

constexpr uint32_t kFields = VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME;

// Fills what is asked for. Reports.
int look_at(int fd, const char *path, struct stat *st, VLIBCStat *xst) {
    if (st != nullptr && ::fstat(fd, st) != 0) {
        VEXO_LOG_ERROR(VEXO_HERE, "stat src: [%s] [(%d)%m]", path, errno);
        return -1;
    }
    if (xst != nullptr) {
        *xst = {};
        if (VLIBCFileFStat(fd, kFields, xst, 0) != 0) {
            VEXO_LOG_ERROR(VEXO_HERE, "stat src: [%s] [(%d)%m]", path, errno);
            return -1;
        }
    }
    return 0;
}

} // namespace

int vexo::open_regular(int directory, const char *name, const char *path, int openFlags, mode_t mode, struct stat *st,
                       VLIBCStat *xst) {
    Fd file(open_without_waiting(name, openFlags, mode, directory));
    if (!file) {
        return fail(Error::open, VEXO_HERE);
    }
    if (look_at(file.get(), path, st, xst) == 0 && S_ISREG(xst != nullptr ? xst->st.st_mode : st->st_mode)) {
        return file.release();
    }
    // The caller makes its own error of this, and examines errno as the failure left it.
    const KeepErrno errnoOfTheFailure;
    file.reset();
    return -1;
}

int VEXOCopyOpenAndCheckIsRegular(const char *path, int openFlags, mode_t mode, struct stat *st, VLIBCStat *xst) {
    if (path == nullptr || (st == nullptr && xst == nullptr)) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    return open_regular(AT_FDCWD, path, path, openFlags, mode, st, xst);
}
