// The btrfs settings of a file or directory that decide whether it shares extents well with another.
#include "platform/core.h"

#include "platform/linux/text_file.h"
#include "support/fd.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/vfs.h>
#include <sys/xattr.h>

namespace vexo {
namespace {

// The answer of VLIBFSGetBTRFSCompression: the algorithm in the lowest bits, then two bits, then the level.
constexpr int kOtherAlgorithm = 15;
constexpr int kCompressed = 0x10;
constexpr int kNeverCompressed = 0x20;
constexpr int kLevelShift = 8;
constexpr int kHighestLevel = 0xffff;

struct OpenItem {
    Fd fd;
    int flags = 0;
};

// The item open, with its flags; a descriptor below 0 with errno. EOPNOTSUPP: it is not on btrfs.
OpenItem open_item(const char *path) {
    OpenItem item;
    if (path == nullptr) {
        errno = EINVAL;
        return item;
    }
    item.fd.reset(::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct statfs volume {};
    if (!item.fd || ::fstatfs(item.fd.get(), &volume) != 0) {
        item.fd = Fd();
    } else if (volume.f_type != BTRFS_SUPER_MAGIC) {
        item.fd = Fd();
        errno = EOPNOTSUPP;
    } else if (::ioctl(item.fd.get(), FS_IOC_GETFLAGS, &item.flags) != 0) {
        item.fd = Fd();
    }
    return item;
}

// "zstd", or "zstd:9" with a level.
int number_of(std::string_view setting) {
    constexpr std::array<std::string_view, 3> kAlgorithms = {"zlib", "lzo", "zstd"};
    const size_t colon = setting.find(':');
    const std::string_view name = setting.substr(0, colon);
    int level = 0;
    for (const char digit : tail(setting, name.size() + 1)) {
        level = digit >= '0' && digit <= '9' && level < kHighestLevel / 10 ? level * 10 + (digit - '0') : level;
    }
    for (size_t at = 0; at < kAlgorithms.size(); ++at) {
        if (name == kAlgorithms[at]) {
            return static_cast<int>(at + 1) | level << kLevelShift;
        }
    }
    return name.empty() || name == "none" || name == "no" ? 0 : kOtherAlgorithm | level << kLevelShift;
}

} // namespace
} // namespace vexo

using namespace vexo;

int VLIBFSGetBTRFSCompression(const char *path) {
    const OpenItem item = open_item(path);
    if (!item.fd) {
        return -1;
    }
    char setting[64];
    const ssize_t length = ::fgetxattr(item.fd.get(), "btrfs.compression", setting, sizeof(setting));
    if (length < 0 && errno != ENODATA) {
        return -1;
    }
    return (length < 0 ? 0 : number_of({setting, static_cast<size_t>(length)})) |
           ((item.flags & FS_COMPR_FL) != 0 ? kCompressed : 0) |
           ((item.flags & FS_NOCOMP_FL) != 0 ? kNeverCompressed : 0);
}

int VLIBFSGetBTRFSNodatacow(const char *path) {
    const OpenItem item = open_item(path);
    if (!item.fd) {
        return -1;
    }
    return (item.flags & FS_NOCOW_FL) != 0 ? 1 : 0;
}
