#include "ea/files/store_file.h"

#include "ea/files/store_place.h"
#include "support/keep_errno.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace vexo {
namespace {

// What the file's other names may be is not known. What everybody may do with it does no harm.
bool may_be_used(const struct stat &status, int flags) {
    if (status.st_nlink <= 1) {
        return true;
    }
    const int access = flags & O_ACCMODE;
    const mode_t needed = (access != O_WRONLY ? mode_t{S_IROTH} : 0) | (access != O_RDONLY ? mode_t{S_IWOTH} : 0);
    return (status.st_mode & needed) == needed;
}

} // namespace

Fd open_store_file(const char *path, int flags, mode_t mode) {
    const StorePlace place(path);
    return place ? open_store_file_in(place.directory(), place.name(), flags, mode) : Fd();
}

Fd open_store_file_in(int directory, const char *name, int flags, struct stat &seen, mode_t mode) {
    Fd file(::openat(directory, name, (flags & ~O_TRUNC) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
    if (!file) {
        errno = errno == ENXIO ? EINVAL : errno; // a socket, or a pipe that nobody reads
        return {};
    }
    if (::fstat(file.get(), &seen) != 0) {
        return {};
    }
    if (!S_ISREG(seen.st_mode) || !may_be_used(seen, flags)) {
        file.reset();
        errno = S_ISREG(seen.st_mode) ? EMLINK : EINVAL;
        return {};
    }
    const bool emptied = (flags & O_TRUNC) == 0 || seen.st_size == 0 || ::ftruncate(file.get(), 0) == 0;
    return emptied ? std::move(file) : Fd();
}

int open_store_file_for_caller(const char *path, int flags) {
    Fd file = open_store_file(path, flags);
    if (file && (flags & O_CLOEXEC) == 0) {
        (void)::fcntl(file.get(), F_SETFD, 0);
    }
    if (file && (flags & O_NONBLOCK) == 0) {
        (void)::fcntl(file.get(), F_SETFL, flags);
    }
    return file.release();
}

Fd open_store_directory(const char *path) {
    const StorePlace place(path);
    return place ? Fd(::openat(place.directory(), place.name(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC))
                 : Fd();
}

int check_store_file(const char *path, int flags, struct stat &status) {
    const StorePlace place(path);
    if (!place || ::fstatat(place.directory(), place.name(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = S_ISLNK(status.st_mode) ? ELOOP : EINVAL;
        return -1;
    }
    if (!may_be_used(status, flags)) {
        errno = EMLINK;
        return -1;
    }
    return 0;
}

int set_store_mode(const char *path) {
    Fd file = open_store_file(path, O_RDONLY);
    if (!file && errno == EACCES) { // its owner may still write it
        file = open_store_file(path, O_WRONLY);
    }
    return file ? ::fchmod(file.get(), kStoreMode) : -1;
}

bool is_store_file(const char *path) {
    const KeepErrno keep;
    const StorePlace place(path);
    struct stat status;
    return place && ::fstatat(place.directory(), place.name(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(status.st_mode);
}

int unlink_store_file(const char *path) {
    const StorePlace place(path);
    if (!place) {
        return -1;
    }
    return ::unlinkat(place.directory(), place.name(), 0);
}

} // namespace vexo
