#include "tools/engine/store/stand_in.h"

#include "tools/engine/report/failure.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

namespace engine {

// The directory of its store is there before the library looks: that makes one open to all, and only as root.
StandIn::StandIn(const HeldEntry &destination, StoreKind kind)
    : m_directory(destination.directory(), destination.name()) {
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const Descriptor made(::openat(m_directory.fd(), destination.name().c_str(), flags, 0600));
    const bool inDirectory = kind == StoreKind::ea_directory || kind == StoreKind::file_ea;
    if (made.get() < 0 || (inDirectory && ::mkdirat(m_directory.fd(), "@eaDir", 0700) != 0)) {
        throw_errno_in(m_directory.fd(), "a copy of its store cannot be made");
    }
    m_entry = std::make_unique<HeldEntry>(fmt::format("/proc/self/fd/{}/{}", m_directory.fd(), destination.name()));
}

bool StandIn::is_locked_by_mode() const {
    struct stat found {};
    if (::stat(m_entry->itself().c_str(), &found) != 0) {
        throw_errno("a copy of its store cannot be looked at");
    }
    return (found.st_mode & 0222) == 0;
}

} // namespace engine
