#include "tools/engine/store/private_file.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/walk/patience.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/text_hash.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace engine {
namespace {

constexpr char kAccessList[] = "system.posix_acl_access";
constexpr size_t kPart = size_t{1} << 16;

bool is_at(int directory, const std::string &name, int fd) {
    struct stat there {};
    struct stat own {};
    return ::fstatat(directory, name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0 && ::fstat(fd, &own) == 0 &&
           there.st_dev == own.st_dev && there.st_ino == own.st_ino;
}

// What a killed run left: whoever works on such a file has it locked. False: somebody does.
bool remove_stale(int directory, const std::string &name) {
    const Descriptor stale(::openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (stale.get() < 0 && errno == ENOENT) {
        return true;
    }
    if (stale.get() >= 0 && ::flock(stale.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        return false;
    }
    if (stale.get() >= 0 && !is_at(directory, name, stale.get())) {
        return true; // it was put in its place meanwhile, and this is the next one's
    }
    if (::unlinkat(directory, name.c_str(), 0) != 0 && errno != ENOENT) {
        throw_errno("what an earlier run left cannot be removed");
    }
    return true;
}

void make(int directory, const std::string &name, mode_t mode, Descriptor &made) {
    Patience patience;
    do {
        Descriptor file(::openat(directory, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
        if (file.get() < 0) {
            if (errno == ENOENT) {
                throw Overtaken("another process has removed the directory of its store meanwhile");
            }
            if (errno != EEXIST) {
                throw_errno_in(directory, "a copy of its store cannot be made");
            }
            if (!remove_stale(directory, name)) {
                continue; // to the look at the clock
            }
            file =
                Descriptor(::openat(directory, name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
        }
        if (file.get() >= 0 && ::flock(file.get(), LOCK_EX | LOCK_NB) == 0 && is_at(directory, name, file.get())) {
            made.swap(file);
            return;
        }
    } while (patience.wait());
    throw Failure("another process is changing it, and did not end in time");
}

std::vector<std::string> attribute_names(int fd) {
    std::string text(size_t{1} << 16, '\0'); // as long as Linux lets such a list be
    const ssize_t size = ::flistxattr(fd, text.data(), text.size());
    if (size < 0 && errno != EOPNOTSUPP) {
        throw_errno("the attributes of its store cannot be listed");
    }
    std::vector<std::string> names;
    for (std::string_view rest(text.data(), size < 0 ? 0 : static_cast<size_t>(size)); !rest.empty();) {
        names.emplace_back(rest.substr(0, rest.find('\0')));
        rest.remove_prefix(std::min(rest.size(), names.back().size() + 1));
    }
    return names;
}

// Whether it could be done; false where this process may not. Throws for everything else that went wrong.
bool was_allowed(int result) {
    if (result == 0 || errno == EPERM || errno == EACCES || errno == EINVAL) { // EINVAL: an owner of another namespace
        return result == 0;
    }
    throw_errno("a copy of its store cannot be given its owner and rights");
}

bool take_attribute(int source, int to, const std::string &name) {
    std::string value(size_t{1} << 16, '\0');
    const ssize_t size = ::fgetxattr(source, name.c_str(), value.data(), value.size());
    if (size < 0) {
        return errno == ENODATA || was_allowed(-1); // gone meanwhile
    }
    std::string there(value.size(), '\0');
    const ssize_t has = ::fgetxattr(to, name.c_str(), there.data(), there.size());
    if (has == size && there.compare(0, static_cast<size_t>(has), value, 0, static_cast<size_t>(size)) == 0) {
        return true; // labels that the kernel gives every file may be nobody's to set
    }
    return was_allowed(::fsetxattr(to, name.c_str(), value.data(), static_cast<size_t>(size), 0));
}

} // namespace

std::string private_name_for(const std::string &name) {
    return fmt::format(".vexofileop-ea-{:016x}", text_hash(name)); // a clash only makes one of two wait
}

PrivateDirectory::PrivateDirectory(int parent, const std::string &name)
    : m_parent(parent), m_name(private_name_for(name)), m_fd(-1) {
    Patience patience;
    do {
        make();
    } while (m_fd.get() < 0 && patience.wait());
    if (m_fd.get() < 0) {
        throw Failure("another process is changing it, and did not end in time");
    }
}

void PrivateDirectory::make() {
    const bool made = ::mkdirat(m_parent, m_name.c_str(), 0700) == 0;
    if (!made && errno != EEXIST) {
        throw_errno_in(m_parent, "a directory for a copy of its store cannot be made");
    }
    Descriptor directory = open_directory(m_parent, m_name);
    if (directory.get() < 0 && errno == ENOENT) {
        return;
    }
    // Whoever works in such a directory has it locked. A volume without locks has nobody else at work on it either.
    if (directory.get() >= 0 && ::flock(directory.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        return;
    }
    struct stat found {};
    if (made && directory.get() >= 0 && is_at(m_parent, m_name, directory.get()) &&
        ::fstat(directory.get(), &found) == 0 && found.st_uid == ::geteuid()) {
        m_fd.swap(directory);
        return;
    }
    // What others may enter is somebody's own, whatever it is called.
    if (!made && directory.get() >= 0 &&
        (::fstat(directory.get(), &found) != 0 || found.st_uid != ::geteuid() || (found.st_mode & 077) != 0)) {
        throw Failure(fmt::format("{} stands in the way beside it, which is no left-over of this command", m_name));
    }
    if (!made && !remove_left_over(m_parent, m_name) && errno != ENOENT) {
        throw_errno("what an earlier run left cannot be removed");
    }
}

PrivateDirectory::~PrivateDirectory() {
    if (is_at(m_parent, m_name, m_fd.get())) {
        (void)remove_left_over(m_parent, m_name); // the next run removes one that stays
    }
}

PrivateFile::PrivateFile(int directory, const std::string &name, mode_t mode)
    : m_directory(directory), m_target(name), m_name(private_name_for(name)), m_fd(-1) {
    make(directory, m_name, mode, m_fd);
}

PrivateFile::~PrivateFile() {
    if (!m_placed) {
        (void)::unlinkat(m_directory, m_name.c_str(), 0); // the next run removes one that stays
    }
}

void PrivateFile::fill_from(int source) const {
    copy_bytes(source, 0, fd(), 0, UINT64_MAX);
}

void copy_bytes(int source, uint64_t from, int target, uint64_t to, uint64_t size) {
    std::string part(kPart, '\0');
    while (size > 0) {
        const ssize_t got = ::pread(source, part.data(), static_cast<size_t>(std::min<uint64_t>(size, part.size())),
                                    static_cast<off_t>(from));
        if (got < 0) {
            throw_errno("its store cannot be read");
        }
        if (got == 0) {
            return;
        }
        for (ssize_t done = 0; done < got;) {
            const ssize_t put =
                ::pwrite(target, part.data() + done, static_cast<size_t>(got - done), static_cast<off_t>(to) + done);
            if (put <= 0) {
                throw_errno("a copy of its store cannot be written");
            }
            done += put;
        }
        from += static_cast<uint64_t>(got);
        to += static_cast<uint64_t>(got);
        size -= static_cast<uint64_t>(got);
    }
}

bool take_properties(int source, int to) {
    struct stat wanted {};
    struct stat own {};
    if (::fstat(source, &wanted) != 0 || ::fstat(to, &own) != 0) {
        throw_errno("its store cannot be looked at");
    }
    if ((own.st_uid != wanted.st_uid || own.st_gid != wanted.st_gid) &&
        !was_allowed(::fchown(to, wanted.st_uid, wanted.st_gid))) {
        return false;
    }
    const std::vector<std::string> names = attribute_names(source);
    if (std::ranges::find(names, kAccessList) == names.end() && ::fremovexattr(to, kAccessList) != 0 &&
        errno != ENODATA && errno != EOPNOTSUPP) { // one that was inherited from the directory
        return was_allowed(-1);
    }
    if (((own.st_mode ^ wanted.st_mode) & 07777) != 0 && !was_allowed(::fchmod(to, wanted.st_mode & 07777))) {
        return false;
    }
    return std::ranges::all_of(names, [&](const std::string &name) { return take_attribute(source, to, name); });
}

void take_properties_of_ours(int source, int to) {
    struct stat found {};
    const uid_t user = ::geteuid();
    if (take_properties(source, to)) {
        return;
    }
    if (::fstat(source, &found) != 0 || user == 0 || found.st_uid == user) {
        throw Failure("its store cannot be given its owner and rights: nothing was changed");
    }
    (void)::fchown(to, static_cast<uid_t>(-1), found.st_gid); // who is in the group may
    give_mode(to, found.st_mode & 0777);
}

void give_mode(int fd, mode_t mode) {
    if (::fchmod(fd, mode) != 0 && errno != EPERM) { // of a volume that knows no such rights
        throw_errno("a copy of its store cannot be given its rights");
    }
}

void PrivateFile::put_in_place(bool replace) {
    engine::put_in_place(m_directory, fd(), m_name, m_target, replace);
    m_placed = true;
}

void put_in_place(int directory, int fd, const std::string &name, const std::string &target, bool replace) {
    if (::fsync(fd) != 0) {
        throw_errno("a copy of its store cannot be made durable");
    }
    int result = 0;
    if (replace) {
        result = ::renameat(directory, name.c_str(), directory, target.c_str());
    } else {
        result = ::renameat2(directory, name.c_str(), directory, target.c_str(), RENAME_NOREPLACE);
        if (result != 0 && (errno == EINVAL || errno == ENOSYS)) { // the volume does not know that flag
            const bool taken = ::faccessat(directory, target.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
            errno = EEXIST;
            result = taken ? -1 : ::renameat(directory, name.c_str(), directory, target.c_str());
        }
    }
    if (result != 0 && !replace && errno == EEXIST) {
        throw Overtaken("another process has given it a store meanwhile");
    }
    if (result != 0) {
        throw_errno("the changed store cannot be put in place");
    }
    (void)::fsync(directory); // some volumes cannot; the rename itself is done
}

bool same_bytes(int left, uint64_t leftOffset, int right, uint64_t rightOffset, uint64_t size) {
    std::string one(kPart, '\0');
    std::string other(kPart, '\0');
    while (size > 0) {
        const auto wanted = static_cast<size_t>(std::min<uint64_t>(size, kPart));
        const ssize_t got = ::pread(left, one.data(), wanted, static_cast<off_t>(leftOffset));
        const ssize_t there = ::pread(right, other.data(), wanted, static_cast<off_t>(rightOffset));
        if (got < 0 || there < 0) {
            throw_errno("its store cannot be read");
        }
        const auto part = static_cast<size_t>(std::min(got, there));
        if (part == 0) {
            return got == there; // both end here
        }
        if (one.compare(0, part, other, 0, part) != 0) {
            return false;
        }
        leftOffset += part;
        rightOffset += part;
        size -= part;
    }
    return true;
}

} // namespace engine
