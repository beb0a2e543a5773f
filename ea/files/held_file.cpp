#include "ea/files/held_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

namespace vexo {

// A file that its owner may neither read nor write can still be given a mode, by its place.
HeldFile::HeldFile(const char *path, const struct stat &seen) {
    if (!S_ISREG(seen.st_mode) && !S_ISDIR(seen.st_mode)) { // opening others may do something, or wait
        errno = EINVAL;
        return;
    }
    for (const int access : {O_RDONLY, O_WRONLY, O_PATH}) {
        m_file.reset(::open(path, access | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        m_isOpen = m_file && access != O_PATH;
        if (m_file || errno != EACCES) {
            break;
        }
    }
    struct stat held;
    if (!m_file || ::fstat(m_file.get(), &held) != 0) {
        m_file.reset();
        return;
    }
    if (held.st_dev != seen.st_dev || held.st_ino != seen.st_ino) {
        m_file.reset();
        errno = ESTALE;
    }
}

int HeldFile::change_mode(mode_t mode) const {
    if (m_isOpen) {
        return ::fchmod(m_file.get(), mode);
    }
    char place[32];
    std::snprintf(place, sizeof place, "/proc/self/fd/%d", m_file.get());
    return ::chmod(place, mode);
}

} // namespace vexo
