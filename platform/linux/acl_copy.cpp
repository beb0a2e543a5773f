// Copying the ACL of one file or directory to another: the access ACL, which is the mode on a volume without ACLs, a
// directory's default ACL, and the Windows ACL that Samba archives beside them.
#include "platform/acl.h"

#include "platform/linux/acl_support.h"
#include "support/attribute_names.h"
#include "support/heap.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <sys/stat.h>
#include <utility>

namespace vexo {
namespace {

// Where Samba keeps a file's Windows ACL. Only root reads and writes it.
constexpr char kArchiveName[] = "security.NTACL";

int refuse(int number) {
    errno = number;
    return -1;
}

bool same_file(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool same_permissions(const struct stat &one, const struct stat &other) {
    constexpr mode_t kPermissions = S_IRWXU | S_IRWXG | S_IRWXO;
    return (one.st_mode & kPermissions) == (other.st_mode & kPermissions);
}

// Where the kernel shows the ACLs.
constexpr char kAccessName[] = "system.posix_acl_access";
constexpr char kDefaultName[] = "system.posix_acl_default";

// A file without an ACL of its own, or a volume that has none: its mode is its ACL.
bool has_mode_only(ssize_t size) {
    return size < 0 && (errno == ENODATA || errno == EOPNOTSUPP);
}

int copy_access_acl(const FileRef &src, const FileRef &dst, const struct stat &from, const struct stat &to) {
    std::array<uint8_t, 1024> value;
    const ssize_t size = src.get_attribute(kAccessName, value.data(), value.size());
    if (has_mode_only(size)) {
        return same_permissions(from, to) && has_mode_only(dst.get_attribute(kAccessName, nullptr, 0))
                   ? 0
                   : give_access_acl(dst, Acl(::acl_from_mode(from.st_mode)));
    }
    // Mostly it can go over as it is.
    if (size > 0 && dst.set_attribute(kAccessName, value.data(), static_cast<size_t>(size), 0) == 0) {
        return 0;
    }
    const Acl acl = read_access_acl(src);
    return acl ? give_access_acl(dst, acl) : -1;
}

// A directory that was just made mostly has no default ACL either: looking costs less than a removal, which changes the
// directory whatever it finds.
int copy_default_acl(const char *src, const char *dst) {
    const Acl acl = read_acl(src, ACL_TYPE_DEFAULT);
    if (!acl && errno != EOPNOTSUPP) {
        return -1;
    }
    if (acl.empty() && ::getxattr(dst, kDefaultName, nullptr, 0) < 0 && errno == ENODATA) {
        return 0;
    }
    return give_default_acl(dst, acl);
}

// The value of the archive ACL, of whatever size. Empty owner with errno: it cannot be read.
HeapBuffer read_archive(const FileRef &file) {
    for (;;) {
        const ssize_t size = file.get_attribute(kArchiveName, nullptr, 0);
        if (size < 0) {
            return {};
        }
        HeapBuffer value = HeapBuffer::uninitialised(static_cast<size_t>(size));
        const ssize_t got = value ? file.get_attribute(kArchiveName, value.data(), value.size()) : -1;
        if (got >= 0) {
            return value.resize(static_cast<size_t>(got)) ? std::move(value) : HeapBuffer();
        }
        if (!value || errno != ERANGE) { // ERANGE: it grew in between
            return {};
        }
    }
}

// "There is none": none stored, or a volume that stores none.
bool says_none(int number) {
    return number == ENODATA || number == EOPNOTSUPP;
}

// Looks first: mostly there is none, and some file systems begin a transaction for the removal of nothing.
int remove_archive(const FileRef &file) {
    if (file.get_attribute(kArchiveName, nullptr, 0) < 0 && says_none(errno)) {
        return 0;
    }
    return file.remove_attribute(kArchiveName) == 0 || says_none(errno) ? 0 : -1;
}

int copy_acl(const FileRef &src, const FileRef &dst) {
    struct stat from {
    }, to{};
    if (src.status(from) != 0 || dst.status(to) != 0) {
        return -1;
    }
    if (same_file(from, to)) {
        return 0;
    }
    const bool directories = S_ISDIR(from.st_mode) && S_ISDIR(to.st_mode);
    if (directories && src.is_open()) { // their default ACLs are only to be had by path
        return refuse(EISDIR);
    }
    if (copy_access_acl(src, dst, from, to) != 0) {
        return -1;
    }
    return directories ? copy_default_acl(src.path(), dst.path()) : 0;
}

int copy_archive(const FileRef &src, const FileRef &dst) {
    struct stat from {
    }, to{};
    const HeapBuffer value = read_archive(src);
    if (!value) {
        // What the destination may have is not the source's: Samba would take it for the file's ACL. Where both are the
        // same file there is none to remove.
        return says_none(errno) ? remove_archive(dst) : -1;
    }
    if (src.status(from) != 0 || dst.status(to) != 0) {
        return -1;
    }
    if (same_file(from, to)) {
        return 0;
    }
    return dst.set_attribute(kArchiveName, value.data(), value.size(), 0);
}

bool lists_acl(const AttributeNames &names) {
    return !names.known() || names.has(kAccessName) || names.has(kDefaultName) || names.has(kArchiveName);
}

// Whether the mode is all that both say, and the same: a new file or directory has got more only from the default ACL
// of the directory that it lies in, and shows that in its own list.
bool have_modes_only(int dstFd, mode_t srcMode, const AttributeNames &source) {
    if (lists_acl(source)) {
        return false;
    }
    AttributeNames here;
    here.list(FileRef::descriptor(dstFd));
    struct stat from {
    }, to{};
    from.st_mode = srcMode;
    return !lists_acl(here) && ::fstat(dstFd, &to) == 0 && same_permissions(from, to);
}

// A new file has nothing but an access ACL from its directory, which that of the source takes the place of. Mostly
// there is no other, and its value goes over as it is. false: nothing was done.
bool give_listed_acl(int srcFd, int dstFd, mode_t srcMode, const AttributeNames &source) {
    if (S_ISDIR(srcMode) || !source.known() || !source.has(kAccessName) || source.has(kArchiveName)) {
        return false;
    }
    std::array<uint8_t, 1024> value;
    const ssize_t size = ::fgetxattr(srcFd, kAccessName, value.data(), value.size());
    return size > 0 && ::fsetxattr(dstFd, kAccessName, value.data(), static_cast<size_t>(size), 0) == 0;
}

} // namespace
} // namespace vexo

using namespace vexo;

int VEXOACLCopy(const char *src, const char *dst) {
    return src == nullptr || dst == nullptr ? refuse(EINVAL) : copy_acl(src, dst);
}

int VEXOACLArchiveCopy(const char *src, const char *dst) {
    return src == nullptr || dst == nullptr ? refuse(EINVAL) : copy_archive(src, dst);
}

int VEXOACLFCopy(int srcFd, int dstFd) {
    return srcFd < 0 || dstFd < 0 ? refuse(EBADF) : copy_acl(FileRef::descriptor(srcFd), FileRef::descriptor(dstFd));
}

int VEXOACLArchiveFCopy(int srcFd, int dstFd) {
    return srcFd < 0 || dstFd < 0 ? refuse(EBADF)
                                  : copy_archive(FileRef::descriptor(srcFd), FileRef::descriptor(dstFd));
}

int VEXOACLFCopyToNew(int srcFd, int dstFd, mode_t srcMode, const char *names, size_t size) {
    if (srcFd < 0 || dstFd < 0 || names == nullptr) {
        return refuse(names == nullptr ? EFAULT : EBADF);
    }
    const AttributeNames listed(names, size);
    if (have_modes_only(dstFd, srcMode, listed) || give_listed_acl(srcFd, dstFd, srcMode, listed)) {
        return 0;
    }
    return VEXOACLFCopy(srcFd, dstFd) == 0 && VEXOACLArchiveFCopy(srcFd, dstFd) == 0 ? 0 : -1;
}
