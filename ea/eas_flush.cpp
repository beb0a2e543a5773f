// Makes a stream file's changes durable.
#include "ea/ea.h"

#include "ea/stream/file.h"
#include "support/report.h"

#include <unistd.h>

using namespace vexo;

int VEXOEASFlush(VEXOEAS *eas) {
    if (!eas::is_open(eas)) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (::fsync(eas->fd) != 0) {
        return fail(Error::file_operation, VEXO_HERE);
    }
    return 0;
}
