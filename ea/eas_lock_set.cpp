// Takes, changes or releases the lock on a whole stream file, without ever waiting for it.
#include "ea/ea.h"

#include "ea/stream/file.h"
#include "support/report.h"

#include <fcntl.h>
#include <unistd.h>

using namespace vexo;

// The numbers of the interface are those of fcntl.
static_assert(F_RDLCK == 0 && F_WRLCK == 1 && F_UNLCK == 2);

int VEXOEASLockSet(VEXOEAS *eas, int lockType) {
    if (!eas::is_open(eas) || lockType < F_RDLCK || lockType > F_UNLCK) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    struct flock lock {};
    lock.l_type = static_cast<short>(lockType);
    lock.l_whence = SEEK_SET;
    lock.l_pid = ::getpid();
    if (::fcntl(eas->fd, F_SETLK, &lock) != 0) {
        return fail(Error::lock, VEXO_HERE);
    }
    eas->lockState = lockType;
    return 0;
}
