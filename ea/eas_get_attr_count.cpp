// Counts a stream file's attributes without reading its records.
#include "ea/ea.h"

#include "ea/stream/file.h"
#include "ea/stream/handle.h"
#include "support/report.h"

#include <cstdlib>

using namespace vexo;

int EASGetAttrCount(int fd) {
    if (fd < 0) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const StreamHandle handle(static_cast<VEXOEAS *>(std::calloc(1, sizeof(VEXOEAS))));
    if (!handle) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    handle->fd = fd;
    handle->lockState = F_UNLCK;
    if (VEXOEASLockSet(handle.get(), F_RDLCK) != 0) {
        return -1;
    }
    if (eas::is_empty(fd)) {
        return 0;
    }
    if (eas::read_header(fd, handle->header, VEXO_SOURCE) != 0) {
        return -1;
    }
    return handle->header.attrCount;
}
