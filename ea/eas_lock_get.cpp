// Asks who holds a lock on a stream file.
#include "ea/ea.h"

#include "ea/stream/file.h"
#include "support/report.h"

#include <fcntl.h>

using namespace vexo;

int VEXOEASLockGet(VEXOEAS *eas, struct flock *lock) {
    if (!eas::is_open(eas) || lock == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (::fcntl(eas->fd, F_GETLK, lock) != 0) {
        return fail(Error::file_operation, VEXO_HERE);
    }
    return 0;
}
