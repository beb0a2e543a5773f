// Clears the archive bit of one directory, whatever volume it is on; what it holds stays as it is.
#include "backup/backup.h"

#include "support/dir.h"
#include "support/dos_attributes.h"
#include "support/report.h"

#include <cerrno>
#include <dirent.h>

using namespace vexo;

int VEXOBackupCleanDirArchiveBit(const char *path) {
    if (path == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const Dir directory(path);
    if (!directory) {
        VEXO_LOG_ERROR(VEXO_HERE, "opendir() failed!! szDir=[%s], errno=[%d/%m]", path, errno);
        return fail(Error::open, VEXO_HERE);
    }
    const int fd = ::dirfd(directory.get());
    if (fd < 0) {
        VEXO_LOG_ERROR(VEXO_HERE,
                       "Fail to get the file descriptor associated with the directory stream (%s), errno=[%d/%m]", path,
                       errno);
        return fail(Error::open, VEXO_HERE);
    }
    // Volumes without the attribute refuse: no failure, or a tree copy that asks for this could not run on them.
    if (request_attribute(fd, AttributeRequest::clear_archive) != 0) {
        VEXO_LOG_DEBUG(VEXO_HERE, "fcntl() failed");
    }
    return 0;
}
