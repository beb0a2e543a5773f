#include "tools/engine/stores/store_place.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/store/store.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {

Descriptor open_stores(int directory) {
    return open_directory(directory, "@eaDir");
}

StoreFileHeld open_store_file(int directory, const std::string &name, int flags) {
    StoreFileHeld held;
    const Descriptor entry(::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (entry.get() < 0 || ::fstat(entry.get(), &held.status) != 0) {
        return held;
    }
    if (!S_ISREG(held.status.st_mode)) {
        errno = EINVAL;
        return held;
    }
    // The very thing that was looked at.
    const std::string itself = fmt::format("/proc/self/fd/{}", entry.get());
    Descriptor file(::open(itself.c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | O_NOATIME));
    if (file.get() < 0 && errno == EPERM) { // a look that leaves no trace is for the owner and for root
        file = Descriptor(::open(itself.c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    }
    held.file = std::move(file);
    return held;
}

bool is_still(int directory, const std::string &name, const struct stat &file) {
    struct stat now {};
    return ::fstatat(directory, name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 && now.st_dev == file.st_dev &&
           now.st_ino == file.st_ino;
}

// Of the descriptor, and not of the process: the library's own locks would go with the first descriptor that is closed.
bool lock_store_file(int fd, int kind) {
    struct flock lock {};
    lock.l_type = static_cast<short>(kind);
    lock.l_whence = SEEK_SET;
    return ::fcntl(fd, F_OFD_SETLK, &lock) == 0 || (errno != EAGAIN && errno != EACCES);
}

std::optional<std::string> metadata_of(int directory, const std::string &name) {
    const Descriptor entry(::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat found {};
    if (entry.get() < 0 || ::fstat(entry.get(), &found) != 0) {
        throw_errno("cannot be looked at");
    }
    if (!S_ISREG(found.st_mode) && !S_ISDIR(found.st_mode)) {
        return std::nullopt;
    }
    std::string value(size_t{1} << 16, '\0'); // as long as Linux lets one be
    const std::string itself = fmt::format("/proc/self/fd/{}", entry.get());
    const ssize_t size = ::getxattr(itself.c_str(), kMetadataName, value.data(), value.size());
    if (size < 0 && errno != ENODATA && errno != EOPNOTSUPP) {
        throw_errno("the metadata attribute cannot be read");
    }
    if (size < 0) {
        return std::nullopt;
    }
    value.resize(static_cast<size_t>(size));
    return value;
}

} // namespace engine
