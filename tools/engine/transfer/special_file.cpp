#include "tools/engine/transfer/special_file.h"

#include "platform/acl.h"
#include "tools/engine/compare/granted_mode.h"
#include "tools/engine/transfer/system_attributes.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/units.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace engine {
namespace {

// Stays the entry that it is, whatever becomes of its name.
struct Node {
    Node(int directory, const std::string &name)
        : held(::openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)) {
        open = held.get() >= 0 && ::fstat(held.get(), &status) == 0;
    }
    std::string path() const { return fmt::format("/proc/self/fd/{}", held.get()); }

    Descriptor held;
    struct stat status {};
    bool open = false;
};

// Nothing: an error of the moment, and no word on what the volume takes. Some drivers make a file first, and fail then.
bool is_refused_for_good(int number, int directory, const std::string &made) {
    if (number == EIO) {
        const Node node(directory, made);
        return node.open && S_ISREG(node.status.st_mode) && ::unlinkat(directory, made.c_str(), 0) == 0;
    }
    return number == EPERM || number == EOPNOTSUPP || number == EINVAL || number == ENOSYS;
}

} // namespace

std::optional<SpecialRefusal> make_special(int from, const std::string &source, const struct stat &entry, int to,
                                           const std::string &made) {
    const Node old(from, source);
    if (!old.open) {
        return SpecialRefusal{problem_of_errno(errno)};
    }
    const mode_t type = entry.st_mode & S_IFMT;
    if (old.status.st_dev != entry.st_dev || old.status.st_ino != entry.st_ino ||
        (old.status.st_mode & S_IFMT) != type) {
        return SpecialRefusal{{.reason = "was exchanged for something else meanwhile", .withSource = true}};
    }
    // Nobody else opens it before it has its own mode.
    if (::mknodat(to, made.c_str(), type | S_IRUSR | S_IWUSR, entry.st_rdev) != 0) {
        const int number = errno;
        if (!is_refused_for_good(number, to, made)) {
            return SpecialRefusal{problem_of_errno(number)};
        }
        const std::string reason =
            fmt::format("is {}, which cannot be made there: {}", kind_of(entry.st_mode), std::strerror(number));
        return SpecialRefusal{{.reason = reason, .withSource = true}, {{LossClass::special_file, reason}}};
    }
    const Node node(to, made);
    if (!node.open || (node.status.st_mode & S_IFMT) != type || node.status.st_nlink != 1) {
        return SpecialRefusal{{"the copy was exchanged for something else meanwhile"}};
    }
    const std::string before = old.path(), now = node.path();
    (void)!::fchownat(node.held.get(), "", entry.st_uid, entry.st_gid, AT_EMPTY_PATH);
    (void)VEXOACLCopy(before.c_str(), now.c_str());
    (void)VEXOACLArchiveCopy(before.c_str(), now.c_str());
    if (::geteuid() == 0) {
        copy_system_attributes(before, now);
    }
    struct stat there {};
    const mode_t wanted = mode_for_copy(before, entry.st_mode & kModeBits, now);
    if (::fstat(node.held.get(), &there) == 0 && (there.st_mode & kModeBits) != wanted) {
        (void)::chmod(now.c_str(), wanted);
    }
    const timespec times[] = {entry.st_atim, entry.st_mtim};
    (void)::utimensat(AT_FDCWD, now.c_str(), times, 0);
    return std::nullopt;
}

} // namespace engine
