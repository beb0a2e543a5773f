#include "copy/engine/constraints.h"

#include "support/fs_type.h"
#include "support/report.h"

#include <cerrno>
#include <sys/vfs.h>

namespace vexo {
namespace {

// Up to this size a copy just tries.
constexpr uint64_t kUncheckedSize = uint64_t{128} * 1024 * 1024;

// What users without privileges may still write. A volume that claims more than can be counted has room for anything.
uint64_t free_bytes(const struct statfs &volume) {
    uint64_t bytes = 0;
    if (__builtin_mul_overflow(volume.f_bavail, volume.f_bsize, &bytes)) {
        return UINT64_MAX;
    }
    return bytes;
}

} // namespace

int check_free_space(int dstFd, int dstType, uint64_t size, const char *source) {
    if (is_type(dstType, FsType::remote) || size <= kUncheckedSize) {
        return 0;
    }
    struct statfs volume = {};
    if (::fstatfs(dstFd, &volume) != 0) {
        VEXO_LOG_ERROR(VEXO_AT(source), "fstatfs failed. errno=%d/%m", errno);
        return -1;
    }
    if (free_bytes(volume) < size) {
        return fail(Error::no_space, VEXO_AT(source));
    }
    return 0;
}

} // namespace vexo
