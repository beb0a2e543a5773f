// The ACL of an "@eaDir" directory: everybody whom the directories above let through keeps the metadata of his files
// there, so it is that of mode 0777, whatever the directory inherited when it was made. It hands nothing on: the files
// inside get the mode that their maker gives them.
#include "platform/acl.h"

#include "platform/linux/acl_support.h"

#include <cerrno>
#include <sys/stat.h>

using namespace vexo;

int VEXOACLSetEADirACL(const char *path) {
    struct stat found {};
    if (path == nullptr || ::stat(path, &found) != 0) {
        errno = path == nullptr ? EINVAL : errno;
        return -1;
    }
    if (!S_ISDIR(found.st_mode)) {
        errno = ENOTDIR;
        return -1;
    }
    const Acl everybody(::acl_from_mode(S_IRWXU | S_IRWXG | S_IRWXO));
    if (!everybody || give_access_acl(path, everybody) != 0) {
        return -1;
    }
    return give_default_acl(path, Acl());
}
