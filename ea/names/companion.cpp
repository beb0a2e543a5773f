#include "ea/names/companion.h"

#include "ea/ea.h"
#include "ea/names/entry.h"
#include "support/guards.h"
#include "support/report.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace vexo {

namespace {

bool is_for_writing(int oflag) {
    return (oflag & (O_WRONLY | O_RDWR | O_CREAT)) != 0;
}

} // namespace

bool can_have_companion(const char *path, int oflag, const char *source) {
    if (names_entry(path)) {
        return true;
    }
    errno = ENOENT;
    if (is_for_writing(oflag) || (oflag & O_TRUNC) != 0) {
        set_error(Error::invalid_argument, VEXO_AT(source));
        errno = EINVAL;
    }
    return false;
}

void archive_after_open(const char *path, int fd, int oflag, const char *source) {
    // Descriptor 0, which a caller without a standard input gets, counts as not opened: kept on purpose.
    if (!is_for_writing(oflag) || fd < 1) {
        return;
    }
    const KeepErrno keep;
    if (EASetSmbArchive(path) < 0) {
        VEXO_LOG_DEBUG(VEXO_AT(source), "Failed to set smb archive: %s", std::strerror(errno));
    }
}

} // namespace vexo
