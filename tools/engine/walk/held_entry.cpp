#include "tools/engine/walk/held_entry.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>

namespace engine {

HeldEntry::HeldEntry(const std::string &path, Needs needs)
    : m_given(path), m_name(path == "/" ? "." : base_name(path)),
      m_directory(::open(parent_of(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)), m_file(-1) {
    if (m_directory.get() < 0) {
        throw_errno();
    }
    Descriptor file(::openat(m_directory.get(), m_name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (file.get() < 0 && (errno != ENOENT || needs == Needs::entry)) {
        throw_errno();
    }
    if (file.get() >= 0 && ::fstat(file.get(), &m_status) != 0) {
        throw_errno("cannot be looked at");
    }
    if (file.get() >= 0 && S_ISLNK(m_status.st_mode) && needs != Needs::name) {
        throw Failure("it is a symbolic link, which is not followed here; name the file that it leads to", 0, ELOOP);
    }
    m_file = std::move(file);
}

std::string HeldEntry::path() const {
    return fmt::format("/proc/self/fd/{}/{}", m_directory.get(), m_name);
}

std::string HeldEntry::itself() const {
    return fmt::format("/proc/self/fd/{}", m_file.get());
}

std::string HeldEntry::shown(const std::string &place) const {
    const std::string front = fmt::format("/proc/self/fd/{}/", m_directory.get());
    return place.starts_with(front) ? joined(parent_of(m_given), place.substr(front.size())) : place;
}

void HeldEntry::check_still() const {
    struct stat now {};
    const bool found = ::fstatat(m_directory.get(), m_name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0;
    if (found != is_there() || (found && (now.st_dev != m_status.st_dev || now.st_ino != m_status.st_ino))) {
        throw Failure("somebody has put something else in its place meanwhile");
    }
}

} // namespace engine
