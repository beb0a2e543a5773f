#include "platform/linux/acl_support.h"

#include <cerrno>
#include <sys/stat.h>

namespace vexo {

namespace {

int set_access_acl(const FileRef &file, const Acl &acl) {
    return file.is_open() ? ::acl_set_fd(file.fd(), acl.get())
                          : ::acl_set_file(file.path(), ACL_TYPE_ACCESS, acl.get());
}

} // namespace

int give_access_acl(const FileRef &file, const Acl &acl) {
    if (set_access_acl(file, acl) == 0) {
        return 0;
    }
    mode_t permissions = 0;
    if (errno != EOPNOTSUPP) {
        return -1;
    }
    if (::acl_equiv_mode(acl.get(), &permissions) != 0) {
        errno = EOPNOTSUPP;
        return -1;
    }
    struct stat found {};
    if (file.status(found) != 0) {
        return -1;
    }
    constexpr mode_t kPermissions = S_IRWXU | S_IRWXG | S_IRWXO;
    return (found.st_mode & kPermissions) == permissions
               ? 0
               : file.change_mode((found.st_mode & 07777 & ~kPermissions) | permissions);
}

int give_default_acl(const char *path, const Acl &acl) {
    if (!acl.empty()) {
        return ::acl_set_file(path, ACL_TYPE_DEFAULT, acl.get());
    }
    return ::acl_delete_def_file(path) == 0 || errno == EOPNOTSUPP ? 0 : -1;
}

} // namespace vexo
