#include "tools/engine/plan/room.h"

#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/units.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <linux/fs.h>
#include <linux/magic.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/quota.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr int64_t kQuotaBlock = 1024;
constexpr uint32_t kXfsMagic = 0x58465342;

int64_t times(uint64_t number, uint64_t unit) {
    uint64_t product = 0;
    return __builtin_mul_overflow(number, unit, &product) || product > INT64_MAX ? INT64_MAX
                                                                                 : static_cast<int64_t>(product);
}

void take_less(std::optional<int64_t> &free, const std::optional<int64_t> &other) {
    if (other) {
        free = std::min(free.value_or(INT64_MAX), std::max<int64_t>(*other, 0));
    }
}

uint32_t magic_of(int fd) {
    struct statfs volume {};
    return ::fstatfs(fd, &volume) == 0 ? static_cast<uint32_t>(volume.f_type) : 0;
}

// A soft limit binds from the end of its grace period on.
std::optional<int64_t> left_of(uint64_t hard, uint64_t soft, uint64_t unit, uint64_t taken, uint64_t graceEnd) {
    const bool over =
        soft != 0 && graceEnd != 0 && taken > soft * unit && ::time(nullptr) >= static_cast<time_t>(graceEnd);
    if (over) {
        return 0;
    }
    return hard != 0 ? std::optional(std::max<int64_t>(times(hard, unit) - times(taken, 1), 0)) : std::nullopt;
}

// False: the kernel does not tell.
bool ask(int fd, Quota &quota) {
#ifdef SYS_quotactl_fd
    dqblk found{};
    if (::syscall(SYS_quotactl_fd, fd, QCMD(Q_GETQUOTA, quota.kind), quota.id, &found) != 0) {
        return false;
    }
    quota.bytes = left_of(found.dqb_bhardlimit, found.dqb_bsoftlimit, kQuotaBlock, found.dqb_curspace, found.dqb_btime);
    quota.inodes = left_of(found.dqb_ihardlimit, found.dqb_isoftlimit, 1, found.dqb_curinodes, found.dqb_itime);
    return true;
#else
    (void)fd, (void)quota;
    return false;
#endif
}

// In a directory of a project the kernel tells the project's room for that of the volume. The directories above that
// are of none tell the volume's own.
struct statvfs room_of_volume(int directory, const struct statvfs &told) {
    struct stat here {
    }, above{};
    if (heir_project(directory) == 0 || ::fstat(directory, &here) != 0) {
        return told;
    }
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    Descriptor at(::openat(directory, "..", flags));
    while (at.get() >= 0 && ::fstat(at.get(), &above) == 0 && above.st_dev == here.st_dev &&
           above.st_ino != here.st_ino) {
        struct statvfs volume {};
        if (heir_project(at.get()) == 0 && ::fstatvfs(at.get(), &volume) == 0) {
            return volume;
        }
        here = above;
        Descriptor next(::openat(at.get(), "..", flags));
        at.swap(next);
    }
    return told;
}

// Blocks that ext4 keeps back also from root.
int64_t kept_back(int directory, int64_t block) {
    struct stat found {};
    if (magic_of(directory) != EXT4_SUPER_MAGIC || ::fstat(directory, &found) != 0) {
        return 0;
    }
    const std::string device =
        "/sys/dev/block/" + std::to_string(major(found.st_dev)) + ":" + std::to_string(minor(found.st_dev));
    char target[256] = "";
    if (::readlink(device.c_str(), target, sizeof target - 1) < 0) {
        return 0;
    }
    const std::string path = target;
    int64_t clusters = 0;
    std::ifstream("/sys/fs/ext4/" + path.substr(path.rfind('/') + 1) + "/reserved_clusters") >> clusters;
    return clusters > 0 ? times(static_cast<uint64_t>(clusters), static_cast<uint64_t>(block)) : 0;
}

} // namespace

uint32_t heir_project(int directory) {
    const Descriptor opened(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    fsxattr found{};
    return opened.get() >= 0 && ::ioctl(opened.get(), FS_IOC_FSGETXATTR, &found) == 0 &&
                   (found.fsx_xflags & FS_XFLAG_PROJINHERIT) != 0
               ? found.fsx_projid
               : 0;
}

// Root is bound by nobody's quota but, on XFS, by that of a project, where what is more is told as a full volume.
std::vector<Quota> quotas_in(int directory) {
    std::vector<Quota> quotas;
    const bool root = ::geteuid() == 0, xfs = magic_of(directory) == kXfsMagic;
    const Descriptor opened(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat found {};
    if (opened.get() < 0 || ::fstat(opened.get(), &found) != 0) {
        return quotas;
    }
    const auto add = [&](int kind, uint32_t id, int refusal) {
        Quota quota{kind, id, {}, {}, refusal};
        const bool told = ask(opened.get(), quota);
        if (quota.bytes || quota.inodes) {
            quotas.push_back(quota);
        }
        return told;
    };
    if (!root) {
        add(USRQUOTA, ::geteuid(), EDQUOT);
        add(GRPQUOTA, (found.st_mode & S_ISGID) != 0 ? found.st_gid : ::getegid(), EDQUOT);
    }
    const uint32_t project = root && !xfs ? 0 : heir_project(opened.get());
    const int refusal = xfs ? ENOSPC : EDQUOT;
    struct statvfs told {};
    if (project != 0 && !add(kProjectQuota, project, refusal) && ::fstatvfs(opened.get(), &told) == 0) {
        // Of a project only root is told, but everybody of what it leaves.
        const struct statvfs volume = room_of_volume(opened.get(), told);
        Quota quota{kProjectQuota, project, {}, {}, refusal};
        if (told.f_blocks < volume.f_blocks) {
            quota.bytes = times(told.f_bavail, told.f_frsize);
        }
        if (told.f_files < volume.f_files) {
            quota.inodes = times(told.f_favail, 1);
        }
        if (quota.bytes || quota.inodes) {
            quotas.push_back(quota);
        }
    }
    return quotas;
}

FreeRoom free_room(int directory) {
    FreeRoom room;
    struct statvfs volume {};
    if (::fstatvfs(directory, &volume) != 0) {
        return room;
    }
    const bool root = ::geteuid() == 0;
    volume = room_of_volume(directory, volume);
    room.readOnly = (volume.f_flag & ST_RDONLY) != 0;
    room.block = static_cast<int64_t>(volume.f_frsize);
    if (volume.f_blocks != 0) {
        // What btrfs counts as free is not all to be had for files.
        const bool reserve = root && magic_of(directory) != BTRFS_SUPER_MAGIC;
        room.bytes = times(reserve ? volume.f_bfree : volume.f_bavail, volume.f_frsize);
        room.bytes = std::max<int64_t>(*room.bytes - (root ? kept_back(directory, room.block) : 0), 0);
    }
    if (volume.f_files != 0) {
        room.inodes = times(root ? volume.f_ffree : volume.f_favail, 1);
    }
    for (const Quota &quota : quotas_in(directory)) {
        if (quota.kind != kProjectQuota) {
            take_less(room.quotaBytes, quota.bytes);
            take_less(room.quotaInodes, quota.inodes);
        }
    }
    return room;
}

bool copies_holes(const struct stat &file) {
    return file.st_blocks < file.st_size / kStatBlock;
}

int64_t bytes_for(const Side &source, const struct stat &file, int64_t block, bool keepsHoles) {
    const auto whole = [block](int64_t bytes) { return (bytes + block - 1) / block * block; };
    if (!keepsHoles || !copies_holes(file)) {
        return whole(file.st_size);
    }
    constexpr int flags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC;
    const Descriptor opened(::openat(source.directory, source.name.c_str(), flags));
    struct stat found {};
    if (opened.get() < 0 || ::fstat(opened.get(), &found) != 0 || found.st_ino != file.st_ino) {
        return std::min(whole(file.st_size), whole(file.st_blocks * kStatBlock));
    }
    int64_t bytes = 0;
    for (off_t at = ::lseek(opened.get(), 0, SEEK_DATA); at >= 0;) {
        const off_t end = ::lseek(opened.get(), at, SEEK_HOLE);
        bytes += end > at ? whole(end) - at / block * block : 0;
        at = end > at ? ::lseek(opened.get(), end, SEEK_DATA) : -1;
    }
    return std::min(whole(file.st_size), bytes);
}

} // namespace engine
