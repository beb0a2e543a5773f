#include "tools/engine/plan/room.h"

#include "tools/engine/walk/units.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/quota.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr int64_t kQuotaBlock = 1024;

int64_t times(uint64_t number, uint64_t unit) {
    uint64_t product = 0;
    return __builtin_mul_overflow(number, unit, &product) || product > INT64_MAX ? INT64_MAX
                                                                                 : static_cast<int64_t>(product);
}

void take_less(std::optional<int64_t> &free, int64_t other) {
    free = std::min(free.value_or(INT64_MAX), std::max<int64_t>(other, 0));
}

// What the quota of a user or group leaves. Root is not bound by any.
void take_quota(int fd, int kind, uint32_t id, FreeRoom &room) {
#ifdef SYS_quotactl_fd
    dqblk quota{};
    if (::syscall(SYS_quotactl_fd, fd, QCMD(Q_GETQUOTA, kind), id, &quota) != 0) {
        return;
    }
    if (quota.dqb_bhardlimit != 0) {
        take_less(room.quotaBytes, times(quota.dqb_bhardlimit, kQuotaBlock) - times(quota.dqb_curspace, 1));
    }
    if (quota.dqb_ihardlimit != 0) {
        take_less(room.quotaInodes, times(quota.dqb_ihardlimit, 1) - times(quota.dqb_curinodes, 1));
    }
#else
    (void)fd, (void)kind, (void)id, (void)room;
#endif
}

} // namespace

FreeRoom free_room(int directory) {
    FreeRoom room;
    struct statvfs volume {};
    if (::fstatvfs(directory, &volume) != 0) {
        return room;
    }
    const bool root = ::geteuid() == 0;
    room.readOnly = (volume.f_flag & ST_RDONLY) != 0;
    room.block = static_cast<int64_t>(volume.f_frsize);
    if (volume.f_blocks != 0) {
        room.bytes = times(root ? volume.f_bfree : volume.f_bavail, volume.f_frsize);
    }
    if (volume.f_files != 0) {
        room.inodes = times(root ? volume.f_ffree : volume.f_favail, 1);
    }
    if (!root) {
        const int fd = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        take_quota(fd, USRQUOTA, ::geteuid(), room);
        take_quota(fd, GRPQUOTA, ::getegid(), room);
        if (fd >= 0) {
            ::close(fd);
        }
    }
    return room;
}

int64_t bytes_for(const struct stat &file, int64_t block, bool keepsHoles) {
    const int64_t whole = (file.st_size + block - 1) / block * block;
    return keepsHoles ? std::min<int64_t>(whole, (file.st_blocks * kStatBlock + block - 1) / block * block) : whole;
}

} // namespace engine
