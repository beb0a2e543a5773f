#include "tools/engine/mirror/overlap.h"

#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/mount_table.h"
#include "tools/engine/walk/mounts.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <vector>

namespace engine {
namespace {

// Where something lies on its volume, wherever that is mounted.
struct Place {
    std::string device = {}, path = {}; // empty: it cannot be told
};

Place place_of(std::string path) {
    struct statx found {};
    while (::statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &found) != 0 && path != "/") {
        path = parent_of(path);
    }
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    const std::vector<Mount> mounts = mount_table();
    const auto mount = std::ranges::find(mounts, found.stx_mnt_id, &Mount::id);
    if (real == nullptr || mount == mounts.end() || (found.stx_mask & STATX_MNT_ID) == 0) {
        return {};
    }
    const std::string below = std::string(real.get()).substr(mount->place == "/" ? 0 : mount->place.size());
    return {mount->device, (mount->root == "/" ? "" : mount->root) + (below == "/" ? "" : below) + "/"};
}

// The directory, and where volumes are mounted below it; of its own volume alone, where that is asked for.
std::vector<std::string> with_mounts(const std::string &directory, bool oneFileSystem) {
    std::vector<std::string> all{directory};
    struct stat top {
    }, found{};
    const bool choosy = oneFileSystem && ::stat(directory.c_str(), &top) == 0;
    for (const std::string &below : mounts_below(directory)) {
        const std::string place = (directory == "/" ? "" : directory) + below;
        if (!choosy || ::stat(place.c_str(), &found) != 0 || found.st_dev == top.st_dev) {
            all.push_back(place);
        }
    }
    return all;
}

} // namespace

bool overlap(const std::string &one, const std::string &other) {
    if (lies_in(one, other) || lies_in(other, one)) {
        return true;
    }
    const Place left = place_of(one), right = place_of(other);
    // What of the second is not there yet is going to lie in what is.
    struct stat found {};
    const bool there = ::stat(other.c_str(), &found) == 0;
    return !left.device.empty() && left.device == right.device &&
           (right.path.starts_with(left.path) || (there && left.path.starts_with(right.path)));
}

std::optional<std::string> overlap_by_mount(const std::string &one, const std::string &other, bool oneFileSystem) {
    const std::vector<std::string> left = with_mounts(one, oneFileSystem), right = with_mounts(other, false);
    for (const std::string &first : left) {
        for (const std::string &second : right) {
            const bool both = first == one && second == other;
            if (!both && overlap(first, second)) {
                return first == one ? second : first;
            }
        }
    }
    return std::nullopt;
}

} // namespace engine
