// Making a file or directory inherit the ACL of the directory that holds it, as if it had been made there.
#include "platform/acl.h"

#include "platform/linux/acl_support.h"
#include "support/path_buffer.h"

#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>

namespace vexo {
namespace {

constexpr mode_t kExecuteBits = S_IXUSR | S_IXGRP | S_IXOTH;

// The directory that holds `path`, a symbolic link at its end followed: the ACL is set on what the link leads to.
int find_parent(const char *path, PathBuffer &parent) {
    if (::realpath(path, parent.fill()) == nullptr) {
        return -1;
    }
    parent.adopt();
    const size_t slash = parent.view().rfind('/');
    parent.cut(slash == 0 ? 1 : slash);
    return 0;
}

// A default ACL speaks of directories: what is no program does not become one by it.
int without_execute(Acl &acl) {
    acl_entry_t entry = nullptr;
    int found = ::acl_get_entry(acl.get(), ACL_FIRST_ENTRY, &entry);
    for (; found == 1; found = ::acl_get_entry(acl.get(), ACL_NEXT_ENTRY, &entry)) {
        acl_permset_t permissions = nullptr;
        if (::acl_get_permset(entry, &permissions) != 0 || ::acl_delete_perm(permissions, ACL_EXECUTE) != 0) {
            return -1;
        }
    }
    return found;
}

} // namespace
} // namespace vexo

using namespace vexo;

int VEXOACLEnforceInherit(const char *path) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    struct stat found {};
    PathBuffer parent;
    if (::stat(path, &found) != 0 || find_parent(path, parent) != 0) {
        return -1;
    }
    const Acl inherited = read_acl(parent.c_str(), ACL_TYPE_DEFAULT);
    if (!inherited && errno != EOPNOTSUPP) {
        return -1;
    }
    if (inherited.empty()) {
        return 0; // nothing to inherit
    }
    Acl access(::acl_dup(inherited.get()));
    if (!access) {
        return -1;
    }
    if (!S_ISDIR(found.st_mode) && (found.st_mode & kExecuteBits) == 0 && without_execute(access) != 0) {
        return -1;
    }
    if (give_access_acl(path, access) != 0) {
        return -1;
    }
    return S_ISDIR(found.st_mode) ? give_default_acl(path, inherited) : 0;
}
