// Whether a share is encrypted: by its record, or because the kernel encrypts its directory.
#include "platform/core.h"
#include "platform/sdk.h"

#include "platform/linux/share_status.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

using namespace vexo;

int VLIBShareIsEncryptionGet(const struct VEXOShare *share, int *encrypted) {
    if (share == nullptr || encrypted == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if ((share->status & kShareEncrypted) != 0) {
        *encrypted = 1;
        return 0;
    }
    struct statx found {};
    if (share->path == nullptr || ::statx(AT_FDCWD, share->path, 0, STATX_TYPE, &found) != 0) {
        errno = share->path == nullptr ? EINVAL : errno;
        return -1;
    }
    *encrypted = (found.stx_attributes & STATX_ATTR_ENCRYPTED) != 0 ? 1 : 0;
    return 0;
}
