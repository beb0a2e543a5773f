// Writes Finder Info into a resource file: through a stream handle, and for a file by its path.
#include "ea/ea.h"

#include "ea/double/format.h"
#include "ea/double/resource_path.h"
#include "ea/files/store_entry.h"
#include "ea/files/store_file.h"
#include "ea/names/store.h"
#include "ea/stream/handle.h"
#include "support/fd.h"
#include "support/guards.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

using namespace vexo;

namespace {

static_assert(sizeof(VEXOEASHeader::finderInfo) == adouble::kFinderInfoSize);

int write_at(int fd, off_t at, std::span<const uint8_t> bytes) {
    if (::lseek(fd, at, SEEK_SET) < 0) {
        return fail(Error::seek, VEXO_HERE);
    }
    if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
        return fail(Error::write, VEXO_HERE);
    }
    return 0;
}

// The handle of an empty file has a header in memory only, and one that counts attributes; the file gets one without.
int write_new_file(const VEXOEAS &stream) {
    const int result = write_at(stream.fd, 0, adouble::make_resource_file(stream.header.finderInfo));
    if (result != 0) {
        const KeepErrors keep;
        (void)::ftruncate(stream.fd, 0); // half a header would be taken for a damaged file
    }
    return result;
}

int write_under_lock(int fd, const void *finderInfo) {
    const StreamHandle stream(fd, F_WRLCK);
    if (!stream) {
        return -1;
    }
    std::memcpy(stream->header.finderInfo, finderInfo, sizeof stream->header.finderInfo);
    const off_t size = ::lseek(fd, 0, SEEK_END);
    if (size < 0) {
        return fail(Error::seek, VEXO_HERE);
    }
    return size == 0 ? write_new_file(*stream.get()) : EASWriteFinderInfo(stream.get());
}

// Somebody else's lock on an empty file says that it is about to be written.
bool is_locked(int fd) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return ::fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

// Best effort, and nothing happens where the size cannot be told: a file that the failed call made, or found and left,
// without a byte in it is of no use to anybody. What else may stand at its path by now is none of ours.
void remove_if_empty(int fd, const char *path) {
    const KeepErrors keep;
    struct stat file {};
    struct stat there {};
    PathBuffer resource;
    if (::fstat(fd, &file) == 0 && file.st_size == 0 && !is_locked(fd) &&
        make_resource_path(path, resource, VEXO_HERE) && look_in_store(resource.c_str(), there) == 0 &&
        there.st_dev == file.st_dev && there.st_ino == file.st_ino) {
        (void)unlink_store_file(resource.c_str());
    }
}

} // namespace

int EASWriteFinderInfo(VEXOEAS *eas) {
    if (eas == nullptr || eas->fd < 0) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (eas->lockState != F_WRLCK) {
        return fail(Error::permission, VEXO_HERE);
    }
    const int index = EASGetFinderInfoIndex(&eas->header);
    if (index < 0) {
        return -1;
    }
    if (::lseek(eas->fd, eas->header.entries[index].offset, SEEK_SET) < 0) {
        VEXO_LOG_ERROR(VEXO_HERE, "Error: lseek error (%s)", std::strerror(errno));
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    constexpr ssize_t kSize = sizeof eas->header.finderInfo;
    if (::write(eas->fd, eas->header.finderInfo, kSize) != kSize) {
        return fail(Error::write, VEXO_HERE);
    }
    return 0;
}

int VEXOEAEADirFSFInfoWrite(const char *path, const void *finderInfo) {
    if (path == nullptr || finderInfo == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const Fd file(VEXOEAOpen(1, path, kResourceStream, O_RDWR | O_CREAT, 0));
    if (!file) {
        return -1;
    }
    const int result = write_under_lock(file.get(), finderInfo);
    if (result != 0) {
        remove_if_empty(file.get(), path);
    }
    return result;
}
