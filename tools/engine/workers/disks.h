// The disks that a volume lies on, as the kernel tells of them.
#pragma once

#include <set>
#include <string>

namespace engine {

struct Disks {
    std::set<std::string> names = {}; // "sda"; none: no disk, or none that the kernel tells of
    bool turning = false;             // one of them at least is not fast at several places at once

    bool operator==(const Disks &) const = default;
};

// Those of what `path` names, or of the nearest directory above it that is there: through partitions, arrays and mapped
// devices, and files that serve as disks, down to the disks, and all of those that a btrfs volume has. `sysfs`: where
// the kernel tells of them.
Disks disks_below(const std::string &path, const std::string &sysfs = "/sys");

} // namespace engine
