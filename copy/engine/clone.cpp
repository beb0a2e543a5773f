#include "copy/engine/clone.h"

#include "support/errno_table.h"
#include "support/report.h"

#include <cerrno>
#include <linux/btrfs.h>
#include <sys/ioctl.h>

namespace vexo {
namespace {

static_assert(BTRFS_IOC_CLONE == 0x40049409);

constexpr ErrnoRow kCloneErrors[] = {
    {ENOSPC, Error::no_space},
    {EDQUOT, Error::quota},
};

} // namespace

CloneResult clone_file(int dstFd, int srcFd, const char *source) {
    if (::ioctl(dstFd, BTRFS_IOC_CLONE, srcFd) == 0) {
        return CloneResult::done;
    }
    if (const std::optional<Error> error = find_error(kCloneErrors, errno)) {
        set_error(*error, VEXO_AT(source));
        return CloneResult::failed;
    }
    return CloneResult::fallback;
}

} // namespace vexo
