#include "tools/engine/compare/witness.h"

#include "tools/engine/walk/units.h"

#include <cerrno>
#include <fcntl.h>

namespace engine {

std::optional<Witness> Witness::of(int fd) {
    struct stat found {};
    return ::fstat(fd, &found) == 0 ? std::optional(Witness(found)) : std::nullopt;
}

std::optional<Witness> Witness::of(int directory, const std::string &name) {
    struct stat found {};
    return ::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 ? std::optional(Witness(found))
                                                                                : std::nullopt;
}

bool Witness::unchanged(int fd) const {
    errno = 0;
    const auto now = of(fd);
    return now && is(now->m_seen);
}

bool Witness::unchanged(int directory, const std::string &name) const {
    errno = 0;
    const auto now = of(directory, name);
    return now && is(now->m_seen);
}

bool Witness::is(const struct stat &now) const {
    return now.st_dev == m_seen.st_dev && now.st_ino == m_seen.st_ino &&
           (now.st_mode & S_IFMT) == (m_seen.st_mode & S_IFMT) && now.st_size == m_seen.st_size &&
           same_time(now.st_mtim, m_seen.st_mtim) && same_time(now.st_ctim, m_seen.st_ctim);
}

} // namespace engine
