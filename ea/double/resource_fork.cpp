#include "ea/double/resource_fork.h"

#include "ea/files/positioned.h"
#include "ea/files/store_file.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace vexo {
namespace {

constexpr char kName[] = "com.apple.ResourceFork";
constexpr char kPseudoFile[] = "rsrc";
constexpr mode_t kPermissions = 07777;

} // namespace

bool is_resource_fork(const char *name) {
    return std::strcmp(name, kName) == 0;
}

bool ResourceForkAccess::open(StatFailure failure) {
    struct stat file {};
    if (::stat(m_path, &file) != 0) {
        report_stat(failure);
        return false;
    }
    if (S_ISDIR(file.st_mode)) {
        set_error(Error::source_missing, VEXO_AT(m_source));
        return false;
    }
    m_fork.join(m_path, kPseudoFile);
    if ((file.st_mode & S_IXUSR) == 0) {
        lend_execution(file);
    }
    return true;
}

bool ResourceForkAccess::stat_fork() {
    if (m_fork.overflowed()) {
        errno = ENAMETOOLONG;
        return false;
    }
    struct stat fork {};
    if (::stat(m_fork.c_str(), &fork) != 0) {
        return false;
    }
    m_length = fork.st_size;
    return true;
}

void ResourceForkAccess::report_stat(StatFailure failure) const {
    if (failure == StatFailure::sets_error) {
        set_error(errno == ENOENT ? Error::source_missing : Error::stat, VEXO_AT(m_source));
    } else {
        VEXO_LOG_ERROR(VEXO_AT(m_source), "Fail to stat(%s). %m", m_path);
    }
}

// Neither failure ends the operation: the fork may be within reach all the same, and if it is not, that is told next.
// Whose file stands at the path meanwhile does not matter: the one that was looked at is lent the permission, and gives
// it back.
void ResourceForkAccess::lend_execution(const struct stat &file) {
    const uid_t before = ::geteuid();
    if (!m_root.become_root()) {
        VEXO_LOG_ERROR(VEXO_AT(m_source), "Fail to seteuid(0). %m");
    }
    m_lent = ::geteuid() != before;
    m_mode = file.st_mode & kPermissions;
    m_file = HeldFile(m_path, file);
    if (m_file && m_file.change_mode(m_mode | S_IXUSR) == 0) {
        m_lent = true;
    } else {
        VEXO_LOG_ERROR(VEXO_AT(m_source), "Fail to chmod. %m");
    }
}

// The mode first: giving it back may take root.
void ResourceForkAccess::restore() {
    if (!m_lent) {
        return;
    }
    m_lent = false;
    const KeepErrno keep;
    if (m_file && m_file.change_mode(m_mode) != 0) {
        VEXO_LOG_ERROR(VEXO_AT(m_source), "Fail to chmod. %m");
    }
    if (!m_root.restore()) {
        VEXO_LOG_ERROR(VEXO_AT(m_source), "Fail to seteuid() back. %m");
    }
}

namespace {

int read_fork(const ResourceForkAccess &access, void *value, size_t length, const char *source) {
    const Fd fork = open_store_file(access.fork_path(), O_RDONLY);
    if (!fork) {
        VEXO_LOG_ERROR(VEXO_AT(source), "Fail to open(%s). %m", access.fork_path());
        return -1;
    }
    if (!read_at(fork.get(), value, length, 0)) {
        VEXO_LOG_ERROR(VEXO_AT(source), "Fail to read(%s). %m", access.fork_path());
        return -1;
    }
    return static_cast<int>(length);
}

// A volume may tell only at the close what it could not write.
int write_fork(const ResourceForkAccess &access, const void *value, size_t size, const char *source) {
    constexpr mode_t kForkMode = 0666;
    Fd fork = open_store_file(access.fork_path(), O_RDWR | O_CREAT | O_TRUNC, kForkMode);
    if (!fork) {
        VEXO_LOG_ERROR(VEXO_AT(source), "Fail to open(%s). %m", access.fork_path());
        return -1;
    }
    if (!write_at(fork.get(), value, size, 0) || ::close(fork.release()) != 0) {
        VEXO_LOG_ERROR(VEXO_AT(source), "Fail to write(%s). %m", access.fork_path());
        return -1;
    }
    return 0;
}

// The writers' way in: every failure has its line.
bool open_for_writing(ResourceForkAccess &access, const char *source) {
    if (!access.open(ResourceForkAccess::StatFailure::is_logged)) {
        return false;
    }
    if (!access.stat_fork()) {
        VEXO_LOG_ERROR(VEXO_AT(source), "Fail to stat(%s). %m", access.fork_path());
        return false;
    }
    return true;
}

} // namespace

int get_resource_fork(const char *path, void *value, int size, const char *source) {
    ResourceForkAccess access(path, source);
    if (!access.open(ResourceForkAccess::StatFailure::sets_error)) {
        return -1;
    }
    if (!access.stat_fork()) {
        if (errno != ENOENT && errno != EACCES) {
            VEXO_LOG_ERROR(VEXO_AT(source), "Fail to stat(%s). %m", access.fork_path());
        }
        return -1;
    }
    if (access.length() == 0) {
        errno = ENODATA;
        return fail(Error::source_missing, VEXO_AT(source));
    }
    // A length that the result cannot tell fits no buffer either.
    if (access.length() > (size == 0 ? INT_MAX : size)) {
        errno = ERANGE;
        return fail(Error::value_too_large, VEXO_AT(source));
    }
    if (size == 0) {
        return static_cast<int>(access.length());
    }
    return read_fork(access, value, static_cast<size_t>(access.length()), source);
}

int set_resource_fork(const char *path, const void *value, int size, int flags, const char *source) {
    ResourceForkAccess access(path, source);
    if (!open_for_writing(access, source)) {
        return -1;
    }
    if (access.length() != 0 && (flags & XATTR_CREATE) != 0) {
        errno = EEXIST;
        return -1;
    }
    if (access.length() == 0 && (flags & XATTR_REPLACE) != 0) {
        errno = ENODATA;
        return -1;
    }
    return write_fork(access, value, static_cast<size_t>(size), source);
}

int remove_resource_fork(const char *path, const char *source) {
    ResourceForkAccess access(path, source);
    if (!open_for_writing(access, source)) {
        return -1;
    }
    return access.length() == 0 ? 0 : write_fork(access, "", 0, source);
}

} // namespace vexo
