#include "ea/files/store_file.h"

#include "support/keep_errno.h"
#include "support/path_buffer.h"

#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace vexo {
namespace {

constexpr std::string_view kDirectoryName = "@eaDir";

// Where a path enters a store: behind the last component "@eaDir", npos when it has none before its last one.
size_t store_begins(std::string_view path) {
    size_t slash = path.rfind('/');
    while (slash != std::string_view::npos && slash > 0) {
        const size_t before = path.rfind('/', slash - 1);
        const size_t begin = before == std::string_view::npos ? 0 : before + 1;
        if (path.substr(begin, slash - begin) == kDirectoryName) {
            return slash + 1;
        }
        slash = before;
    }
    return std::string_view::npos;
}

constexpr int kEnter = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// The directory that holds the last component of a path, entered without following a link from "@eaDir" on, and that
// component. A path that lies in no "@eaDir" is left to the kernel, whole.
class StorePlace {
  public:
    explicit StorePlace(const char *path) : m_name(path) {
        const size_t behind = store_begins(path);
        if (behind == std::string_view::npos) {
            return;
        }
        m_inStore = true;
        PathBuffer part(std::string_view(path, behind - 1));
        if (part.overflowed()) {
            errno = ENAMETOOLONG;
            return;
        }
        m_directory.reset(::open(part.c_str(), kEnter));
        m_name = path + behind;
        while (m_directory) {
            const std::string_view rest = m_name;
            const size_t slash = rest.find('/');
            if (slash == std::string_view::npos) {
                break;
            }
            part.clear();
            part.append(rest.substr(0, slash));
            m_directory.reset(::openat(m_directory.get(), part.c_str(), kEnter));
            m_name += slash + 1;
        }
    }
    // false, with errno: the way there is not one of directories.
    explicit operator bool() const { return !m_inStore || m_directory; }
    int directory() const { return m_inStore ? m_directory.get() : AT_FDCWD; }
    const char *name() const { return m_name; }

  private:
    const char *m_name;
    Fd m_directory;
    bool m_inStore = false;
};

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
    if (!place) {
        return {};
    }
    Fd file(::openat(place.directory(), place.name(), (flags & ~O_TRUNC) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
    if (!file) {
        errno = errno == ENXIO ? EINVAL : errno; // a socket, or a pipe that nobody reads
        return {};
    }
    struct stat status;
    if (::fstat(file.get(), &status) != 0) {
        return {};
    }
    if (!S_ISREG(status.st_mode) || !may_be_used(status, flags)) {
        file.reset();
        errno = S_ISREG(status.st_mode) ? EMLINK : EINVAL;
        return {};
    }
    const bool emptied = (flags & O_TRUNC) == 0 || status.st_size == 0 || ::ftruncate(file.get(), 0) == 0;
    return emptied ? std::move(file) : Fd();
}

Fd open_store_directory(const char *path) {
    const StorePlace place(path);
    return place ? Fd(::openat(place.directory(), place.name(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC))
                 : Fd();
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
