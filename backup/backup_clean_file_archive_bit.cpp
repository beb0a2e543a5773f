// Clears the archive bit of one file, whatever volume it is on.
#include "backup/backup.h"

#include "support/dos_attributes.h"
#include "support/fd.h"
#include "support/open_without_waiting.h"
#include "support/report.h"

#include <cerrno>
#include <fcntl.h>

using namespace vexo;

int VEXOBackupCleanFileArchiveBit(const char *path) {
    if (path == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const Fd file(open_without_waiting(path, O_RDONLY));
    if (!file) {
        VEXO_LOG_ERROR(VEXO_HERE, "open() failed!! szFile=[%s], errno=[%d/%m]", path, errno);
        return fail(Error::open, VEXO_HERE);
    }
    // Volumes without the attribute refuse: no failure, or a backup could not run on them.
    if (request_attribute(file.get(), AttributeRequest::clear_archive) != 0) {
        VEXO_LOG_DEBUG(VEXO_HERE, "fcntl() failed");
    }
    return 0;
}
