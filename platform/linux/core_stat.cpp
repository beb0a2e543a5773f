// The extended stat: what the kernel tells, with the DOS attributes and the creation time.
#include "platform/core.h"

#include "platform/linux/core_attribute_store.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace vexo {
namespace {

timespec time_of(const struct statx_timestamp &stamp) {
    return {stamp.tv_sec, stamp.tv_nsec};
}

struct stat stat_of(const struct statx &from) {
    struct stat to {};
    to.st_dev = makedev(from.stx_dev_major, from.stx_dev_minor);
    to.st_ino = from.stx_ino;
    to.st_mode = from.stx_mode;
    to.st_nlink = from.stx_nlink;
    to.st_uid = from.stx_uid;
    to.st_gid = from.stx_gid;
    to.st_rdev = makedev(from.stx_rdev_major, from.stx_rdev_minor);
    to.st_size = static_cast<off_t>(from.stx_size);
    to.st_blksize = static_cast<blksize_t>(from.stx_blksize);
    to.st_blocks = static_cast<blkcnt_t>(from.stx_blocks);
    to.st_atim = time_of(from.stx_atime);
    to.st_mtim = time_of(from.stx_mtime);
    to.st_ctim = time_of(from.stx_ctime);
    return to;
}

bool earlier(const timespec &one, const timespec &other) {
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

// The stored creation time, which an SMB client or a copy has set; else the volume's own; else the oldest time there
// is, since the file existed then.
timespec creation_time(const DosRecord &record, const struct statx &found) {
    if (record.creationTime) {
        return time_of_dos(*record.creationTime);
    }
    if ((found.stx_mask & STATX_BTIME) != 0) {
        return time_of(found.stx_btime);
    }
    timespec oldest = time_of(found.stx_mtime);
    for (const timespec other : {time_of(found.stx_ctime), time_of(found.stx_atime)}) {
        oldest = earlier(other, oldest) ? other : oldest;
    }
    return oldest;
}

int extended_stat(int fd, const char *path, int flags, const AttributeFile &file, uint32_t fields, VLIBCStat *out) {
    struct statx found {};
    if (::statx(fd, path, flags, STATX_BASIC_STATS | STATX_BTIME, &found) != 0) {
        return -1;
    }
    VLIBCStat result{};
    result.st = stat_of(found);
    if ((fields & (VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME)) != 0) {
        const DosRecord record = file.read(found.stx_mode);
        if ((fields & VLIBC_STAT_ATTRIBUTES) != 0) {
            result.attributes = platform_word(record.attributes.value_or(0));
        }
        if ((fields & VLIBC_STAT_CREATE_TIME) != 0) {
            result.createTime = creation_time(record, found);
        }
    }
    *out = result;
    return 0;
}

int refuse(int number) {
    errno = number;
    return -1;
}

} // namespace
} // namespace vexo

using namespace vexo;

int VLIBCFileStat(const char *path, uint32_t fields, VLIBCStat *out) {
    if (path == nullptr || out == nullptr) {
        return refuse(EFAULT);
    }
    return extended_stat(AT_FDCWD, path, AT_STATX_SYNC_AS_STAT, AttributeFile::path(path), fields, out);
}

int VLIBCFileLStat(const char *path, uint32_t fields, VLIBCStat *out) {
    if (path == nullptr || out == nullptr) {
        return refuse(EFAULT);
    }
    return extended_stat(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, AttributeFile::link(path), fields, out);
}

int VLIBCFileFStat(int fd, uint32_t fields, VLIBCStat *out, int reserved) {
    (void)reserved;
    if (fd < 0 || out == nullptr) {
        return refuse(fd < 0 ? EBADF : EFAULT);
    }
    return extended_stat(fd, "", AT_EMPTY_PATH, AttributeFile::descriptor(fd), fields, out);
}
