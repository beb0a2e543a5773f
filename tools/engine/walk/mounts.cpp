#include "tools/engine/walk/mounts.h"

#include "tools/engine/walk/mount_table.h"

#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <set>
#include <sys/stat.h>

namespace engine {
namespace {

std::string resolved_path(const std::string &path) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    return real == nullptr ? path : real.get();
}

} // namespace

std::optional<std::string> mount_in(const std::string &path, bool itself) {
    const std::string wanted = resolved_path(path);
    for (const Mount &mount : mount_table()) {
        if ((itself && mount.place == wanted) || mount.place.starts_with(wanted == "/" ? "/" : wanted + "/")) {
            return mount.place;
        }
    }
    return std::nullopt;
}

std::vector<std::string> mounts_below(const std::string &path) {
    const std::string top = resolved_path(path) == "/" ? "" : resolved_path(path);
    std::set<std::string> found; // one over another is one place
    for (const Mount &mount : mount_table()) {
        if (mount.place.starts_with(top + "/") && mount.place != "/") {
            found.insert(mount.place.substr(top.size()));
        }
    }
    return {found.begin(), found.end()};
}

bool is_mount_root(int directory, dev_t above) {
    struct statx found {};
    if (::statx(directory, "", AT_EMPTY_PATH, STATX_TYPE, &found) == 0 &&
        (found.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0) {
        return (found.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    }
    struct stat own {};
    return ::fstat(directory, &own) == 0 && own.st_dev != above;
}

} // namespace engine
