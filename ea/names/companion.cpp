#include "ea/names/companion.h"

#include "ea/ea.h"
#include "support/guards.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace vexo {

void archive_after_open(const char *path, int fd, int oflag, const char *source) {
    // Descriptor 0, which a caller without a standard input gets, counts as not opened: kept on purpose.
    if ((oflag & (O_WRONLY | O_RDWR | O_CREAT)) == 0 || fd < 1) {
        return;
    }
    const KeepErrno keep;
    if (EASetSmbArchive(path) < 0) {
        VEXO_LOG_DEBUG(VEXO_AT(source), "Failed to set smb archive: %s", std::strerror(errno));
    }
}

} // namespace vexo
