#include "tools/engine/transfer/link_transfer.h"

#include "platform/sdk.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr uint32_t kExists = 0xA300;

// Makes the link under a name of its own and renames it, so that what stood there goes only when the new one is whole.
int replace_by_link(const char *target, const std::string &destination) {
    const std::string parent = parent_of(destination);
    const std::string made = fmt::format("{}/.vexofileop-{}", parent == "/" ? "" : parent, ::getpid());
    if (::symlink(target, made.c_str()) != 0) {
        return -1;
    }
    if (::rename(made.c_str(), destination.c_str()) == 0) {
        return 0;
    }
    const int number = errno;
    ::unlink(made.c_str());
    errno = number;
    return -1;
}

} // namespace

std::optional<Problem> move_as_it_is(const std::string &source, const struct stat &entry,
                                     const std::string &destination, bool replace, bool &ownerLost) {
    const unsigned noReplace = replace ? 0 : RENAME_NOREPLACE;
    int result = ::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, destination.c_str(), noReplace);
    if (result != 0 && errno == EINVAL && noReplace != 0) {
        // Not every file system knows the flag.
        if (exists(destination)) {
            return problem_of(kExists);
        }
        result = std::rename(source.c_str(), destination.c_str());
    }
    if (result == 0) {
        return std::nullopt;
    }
    if (errno != EXDEV) {
        return problem_of_errno(errno);
    }
    if (!S_ISLNK(entry.st_mode)) {
        return Problem{fmt::format("{} cannot be moved to another volume", kind_of(entry.st_mode))};
    }
    auto problem = copy_link(source, entry, destination, replace, ownerLost);
    if (!problem) {
        ::unlink(source.c_str()); // That it is still there is seen afterwards.
    }
    return problem;
}

std::optional<Problem> copy_link(const std::string &source, const struct stat &entry, const std::string &destination,
                                 bool replace, bool &ownerLost) {
    if (!volume_traits(VEXOGetFSType(parent_of(destination).c_str(), 0)).links) {
        return Problem{.reason = "is a symbolic link, which the destination's volume cannot hold", .withSource = true};
    }
    char target[PATH_MAX] = "";
    if (::readlink(source.c_str(), target, sizeof target - 1) < 0) {
        return problem_of_errno(errno);
    }
    if ((replace ? replace_by_link(target, destination) : ::symlink(target, destination.c_str())) != 0) {
        return problem_of_errno(errno);
    }
    ownerLost = !finish_link(entry, destination);
    return std::nullopt;
}

bool finish_link(const struct stat &source, const std::string &destination) {
    const bool owned = ::lchown(destination.c_str(), source.st_uid, source.st_gid) == 0;
    const timespec times[] = {source.st_atim, source.st_mtim};
    ::utimensat(AT_FDCWD, destination.c_str(), times, AT_SYMLINK_NOFOLLOW); // Not every volume keeps a link's times.
    return owned;
}

} // namespace engine
