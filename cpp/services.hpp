// Archive bits, media indexes, and change notifications.
#pragma once

#include "backup/backup.h"
#include "cpp/result.hpp"
#include "ea/ea.h"
#include "index/index.h"
#include "notify/notify.h"
#include "platform/core.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>

namespace vexofileop {

// Whether the archive bit of a file or directory is set, which says that it changed since the last backup. A volume
// that keeps no such bit gives false. A link is followed. Errors: errno of the look-up.
inline Result<bool> has_archive_bit(const std::filesystem::path &path) {
    const detail::PathArgument place(path);
    if (!place) {
        return detail::bad_path("look at", path);
    }
    VLIBCStat found{};
    detail::forget();
    if (VLIBCFileStat(place.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &found) != 0) {
        return Error::last("look at", path);
    }
    return (found.attributes & VLIBC_ATTR_ARCHIVE) != 0;
}

// Clears the archive bit of a file or a directory, not of what is in it. A volume that refuses that is no failure.
// Errors: Code::open.
inline Result<void> clear_archive_bit(const std::filesystem::path &path) {
    const detail::PathArgument place(path);
    if (!place) {
        return detail::bad_path("clear the archive bit of", path);
    }
    detail::forget();
    // The function for files takes whatever opens.
    return detail::checked(VEXOBackupCleanFileArchiveBit(place.c_str()), "clear the archive bit of", path);
}

// Sets the archive bit of a file, so that the next backup takes it along. Errors: errno; EOPNOTSUPP where the volume
// keeps no such bit.
inline Result<void> set_archive_bit(const std::filesystem::path &path) {
    const detail::PathArgument place(path);
    if (!place) {
        return detail::bad_path("set the archive bit of", path);
    }
    detail::forget();
    return detail::checked(EASetSmbArchive(place.c_str()), "set the archive bit of", path);
}

// Whether anything on the appliance needs an index of media files. The answer holds for the life of the thread.
inline bool index_is_needed() {
    return VEXOIndexIsNeed() == 1;
}

// Where a path stands with the indexers.
struct Indexing {
    bool enabled;      // it is to be indexed
    bool inRecycleBin; // it is in the recycle bin of a share
};

// Whether a path is to be indexed; what cannot be found out is a "no". Errors: Code::invalid_argument for an empty path
// or one with a NUL inside.
inline Result<Indexing> indexing_of(const std::filesystem::path &path) {
    const detail::PathArgument place(path);
    if (!place) {
        return detail::bad_path("look for the index of", path);
    }
    int recycle = 0;
    const bool enabled = VEXOIndexIsEnabled(place.c_str(), &recycle) == 1;
    return Indexing{enabled, recycle != 0};
}

// The path as the indexers name it: absolute, and with the links of a user's home resolved. Errors: errno.
inline Result<std::filesystem::path> indexed_path(const std::filesystem::path &path) {
    if (path.empty() || path.native().find('\0') != std::string::npos) {
        return detail::bad_path("resolve", path);
    }
    char resolved[4096] = "";
    detail::forget();
    if (path.native().size() >= sizeof resolved) { // which would be cut to the path of another file
        return Error(Code::name_too_long, ENAMETOOLONG, "resolve", path);
    }
    const char *const result = VEXOPathResolve(path.c_str(), resolved, sizeof resolved);
    if (result == nullptr) {
        return Error::last("resolve", path);
    }
    if (result == resolved && std::strlen(resolved) == sizeof resolved - 1) {
        return Error(Code::name_too_long, ENAMETOOLONG, "resolve", path);
    }
    return std::filesystem::path(result);
}

// Tells the file-change service of a change that it did not see: the path that changed, its path before a rename, and
// the service's event code. Nobody learns whether the message arrived. The call can wait for a service that does not
// read, and does not return where it ends in the middle (notify.h says when). From the first call on the process
// ignores SIGPIPE. Errors: Code::invalid_argument for an empty path or one with a NUL inside.
inline Result<void> notify(const std::filesystem::path &path, int event,
                           const std::optional<std::filesystem::path> &previous = {}) {
    const detail::PathArgument place(path);
    const std::optional<detail::PathArgument> before =
        previous ? std::optional<detail::PathArgument>(std::in_place, *previous) : std::nullopt;
    if (!place || (before && !*before)) {
        return detail::bad_path("notify of", path);
    }
    VLIBVXNotifyForce(place.c_str(), before ? before->c_str() : nullptr, event);
    return {};
}

} // namespace vexofileop
