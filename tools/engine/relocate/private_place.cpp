#include "tools/engine/relocate/private_place.h"

#include "platform/sdk.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/report/names.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <sys/file.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr char kLock[] = "lock";

// The same in every build, and short enough for every volume.
std::string name_for(const std::string &base) {
    uint64_t hash = 0xcbf29ce484222325; // FNV-1a
    for (const char letter : base) {
        hash = (hash ^ static_cast<unsigned char>(letter)) * 0x100000001b3;
    }
    return fmt::format(".vexofileop-relocation-{:016x}", hash);
}

} // namespace

PrivatePlace::PrivatePlace(const std::string &destination) : m_base(base_name(destination)), m_name(name_for(m_base)) {
    if (m_base == "." || m_base == ".." || m_base.empty() || m_base == "@tmp" || m_base == "@eaDir") {
        throw InvalidRequest(
            fmt::format("{}: give the full path that the directory is to have", displayed(destination)));
    }
    const std::string above = parent_of(destination);
    Descriptor(::open(above.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)).swap(m_parent);
    if (m_parent.get() < 0) {
        throw InvalidRequest(
            fmt::format("{}: {}", displayed(above),
                        errno == ENOENT || errno == ENOTDIR ? "no such directory" : std::strerror(errno)));
    }
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(above.c_str(), nullptr), &std::free);
    m_parentPath = real == nullptr ? above : real.get();
    m_path = joined(m_parentPath, m_name);
    m_byText = VEXOGetFSType(m_parentPath.c_str(), 0) !=
               VEXOGetFSType(fmt::format("/proc/self/fd/{}/.", m_parent.get()).c_str(), 0);
    if (!open_there() && errno != ENOENT) {
        throw InvalidRequest(fmt::format("{}: {}", displayed(m_path), std::strerror(errno)));
    }
    struct stat found {};
    if (exists() && (::fstat(directory(), &found) != 0 || !is_ours(found))) {
        throw InvalidRequest(
            fmt::format("{}: was not made by this user; nothing is done beside it", displayed(m_path)));
    }
}

bool PrivatePlace::open_there() {
    Descriptor(::openat(parent(), m_name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)).swap(m_directory);
    return exists();
}

// On a volume without owners everything belongs to whoever mounted it.
bool PrivatePlace::is_ours(const struct stat &found) const {
    return !volume_traits(VEXOGetFSType(m_parentPath.c_str(), 0)).owners ||
           (found.st_uid == ::geteuid() && (found.st_mode & (S_IRWXG | S_IRWXO)) == 0);
}

std::string PrivatePlace::inside(const std::string &name) const {
    return m_byText ? joined(m_path, name) : fmt::format("/proc/self/fd/{}/{}", directory(), name);
}

std::string PrivatePlace::destination() const {
    return m_byText ? joined(m_parentPath, m_base) : fmt::format("/proc/self/fd/{}/{}", parent(), m_base);
}

std::optional<struct stat> PrivatePlace::look_at(int directory, const std::string &name) {
    struct stat found {};
    if (::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0) {
        return found;
    }
    if (errno != ENOENT) {
        throw_errno(fmt::format("{} cannot be looked at", displayed(name)));
    }
    return std::nullopt;
}

bool PrivatePlace::enter() {
    if (!exists()) {
        if (::mkdirat(parent(), m_name.c_str(), 0700) != 0 && errno != EEXIST) {
            throw_errno_in(parent(), fmt::format("cannot make {}", displayed(m_path)));
        }
        struct stat found {};
        if (!open_there() || ::fstat(directory(), &found) != 0 || !is_ours(found)) {
            throw_errno(fmt::format("cannot use {}", displayed(m_path)));
        }
    }
    Descriptor(::openat(directory(), kLock, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600)).swap(m_lock);
    if (m_lock.get() < 0) {
        const int number = errno;
        (void)::unlinkat(parent(), m_name.c_str(), AT_REMOVEDIR); // one that holds nothing is nobody's
        errno = number;
        throw_errno_in(parent(), fmt::format("cannot lock {}", displayed(m_path)));
    }
    if (::flock(m_lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            return false;
        }
        throw_errno(fmt::format("cannot lock {}", displayed(m_path)));
    }
    // Whoever had it may just have taken the place away.
    const auto held = look_inside(kLock);
    struct stat own {};
    return held && ::fstat(m_lock.get(), &own) == 0 && own.st_ino == held->st_ino && own.st_dev == held->st_dev;
}

bool PrivatePlace::leave() {
    if (::unlinkat(directory(), kLock, 0) != 0 && errno != ENOENT) {
        return false;
    }
    const auto remove = [this] { return ::unlinkat(parent(), m_name.c_str(), AT_REMOVEDIR) == 0; };
    return remove() || (errno == ENOENT && (remove() || errno == ENOENT)); // which is believed when it is told twice
}

void PrivatePlace::sync() const {
    if (::fsync(directory()) != 0 || ::fsync(parent()) != 0) {
        throw_errno(fmt::format("{} cannot be made durable", displayed(m_path)));
    }
}

} // namespace engine
