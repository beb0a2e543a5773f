// Volumes that this kernel keeps itself: what it answers for them it has seen, while others (a server, a FUSE program)
// answer later and only once.
#pragma once

#include <cstdint>
#include <linux/magic.h>
#include <sys/vfs.h>

namespace vexo {

inline bool is_own_volume(const struct statfs &volume) {
    constexpr uint32_t kXfs = 0x58465342;
    for (const uint32_t magic :
         {uint32_t{BTRFS_SUPER_MAGIC}, uint32_t{EXT4_SUPER_MAGIC}, uint32_t{TMPFS_MAGIC}, kXfs}) {
        if (magic == static_cast<uint32_t>(volume.f_type)) {
            return true;
        }
    }
    return false;
}

inline bool is_on_own_volume(int fd) {
    struct statfs volume = {};
    return ::fstatfs(fd, &volume) == 0 && is_own_volume(volume);
}

} // namespace vexo
