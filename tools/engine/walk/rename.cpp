#include "tools/engine/walk/rename.h"

#include "tools/engine/walk/descriptor.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <linux/fs.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

// Something of our own under the name, which a renaming may replace.
bool take_name(int directory, const std::string &name, bool isDirectory) {
    if (isDirectory) {
        return ::mkdirat(directory, name.c_str(), 0700) == 0;
    }
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    return Descriptor(::openat(directory, name.c_str(), flags, 0600)).get() >= 0;
}

// Of the mount that an open directory belongs to; nothing where the kernel does not tell.
std::optional<uint64_t> mount_of(int directory) {
    struct statx found {};
    const bool told = ::statx(directory, "", AT_EMPTY_PATH, STATX_MNT_ID, &found) == 0;
    return told && (found.stx_mask & STATX_MNT_ID) != 0 ? std::optional(found.stx_mnt_id) : std::nullopt;
}

// What a volume with projects keeps of an entry that may be opened without doing anything by that.
std::optional<fsxattr> project_settings(int directory, const std::string &name) {
    struct stat entry {};
    if (::fstatat(directory, name.c_str(), &entry, AT_SYMLINK_NOFOLLOW) != 0 ||
        (!S_ISREG(entry.st_mode) && !S_ISDIR(entry.st_mode))) {
        return std::nullopt;
    }
    const Descriptor opened(::openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    fsxattr found{};
    return opened.get() >= 0 && ::ioctl(opened.get(), FS_IOC_FSGETXATTR, &found) == 0 ? std::optional(found)
                                                                                      : std::nullopt;
}

std::optional<struct statx> attributes_of(int directory, const char *name) {
    struct statx found {};
    const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_EMPTY_PATH;
    return ::statx(directory, name, flags, STATX_BASIC_STATS, &found) == 0 ? std::optional(found) : std::nullopt;
}

} // namespace

bool rename_without_replacing(int fromDirectory, const std::string &from, int toDirectory, const std::string &to) {
    if (::renameat2(fromDirectory, from.c_str(), toDirectory, to.c_str(), RENAME_NOREPLACE) == 0) {
        return true;
    }
    struct stat found {};
    if (errno != EINVAL || ::fstatat(fromDirectory, from.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    const bool isDirectory = S_ISDIR(found.st_mode);
    if (!isDirectory && ::linkat(fromDirectory, from.c_str(), toDirectory, to.c_str(), 0) == 0) {
        return ::unlinkat(fromDirectory, from.c_str(), 0) == 0;
    }
    if (!isDirectory && (errno == EEXIST || errno == EXDEV)) {
        return false;
    }
    if (!take_name(toDirectory, to, isDirectory)) {
        return false;
    }
    if (::renameat(fromDirectory, from.c_str(), toDirectory, to.c_str()) == 0) {
        return true;
    }
    const int number = errno;
    ::unlinkat(toDirectory, to.c_str(), isDirectory ? AT_REMOVEDIR : 0);
    errno = number;
    return false;
}

bool may_be_renamed(int fromDirectory, const std::string &from, int toDirectory) {
    if (mount_of(fromDirectory) != mount_of(toDirectory)) {
        return false;
    }
    const auto into = project_settings(toDirectory, ".");
    if (!into || (into->fsx_xflags & FS_XFLAG_PROJINHERIT) == 0) {
        return true;
    }
    auto entry = project_settings(fromDirectory, from);
    entry = entry ? entry : project_settings(fromDirectory, "."); // a link has that of its directory
    return !entry || entry->fsx_projid == into->fsx_projid;
}

int refusal_to_go(int directory, const std::string &name) {
    if (::faccessat(directory, ".", W_OK | X_OK, AT_EACCESS) != 0) {
        return errno;
    }
    const auto above = attributes_of(directory, ""), entry = attributes_of(directory, name.c_str());
    if (!above || !entry) {
        return 0;
    }
    const uid_t user = ::geteuid();
    const bool others =
        (above->stx_mode & S_ISVTX) != 0 && user != 0 && user != entry->stx_uid && user != above->stx_uid;
    const bool stays = (above->stx_attributes & STATX_ATTR_APPEND) != 0 ||
                       (entry->stx_attributes & (STATX_ATTR_APPEND | STATX_ATTR_IMMUTABLE)) != 0;
    const bool mounted = !S_ISDIR(entry->stx_mode) && (entry->stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    return others || stays ? EPERM : mounted ? EBUSY : 0;
}

int refusal_to_be_written(int directory, const std::string &name) {
    const auto entry = attributes_of(directory, name.c_str());
    return entry && (entry->stx_attributes & (STATX_ATTR_APPEND | STATX_ATTR_IMMUTABLE)) != 0 ? EPERM : 0;
}

} // namespace engine
