// The largest file that a volume takes.
#include "copy/copy.h"

#include "support/dynamic_library.h"
#include "support/fs_type.h"

#include <cstdint>

using namespace vexo;

namespace {

// Exactly 4 GiB pass the check, which is for more than the limit. One byte less is what FAT takes; callers know the
// check as it is.
constexpr uint64_t kFatLimit = uint64_t{1} << 32;

// The cloud file system tells its limit through a plug-in. One that is missing, incomplete or failing only means that
// the limit is not known.
uint64_t ask_plugin(const char *path) {
    const DynamicLibrary plugin("/usr/local/lib/libvexok7fs-sdk.so");
    if (!plugin) {
        return 0;
    }
    auto *const limitGet = plugin.function<int(const char *, uint64_t *)>("K7FSFileSizeLimitGet");
    uint64_t limit = 0;
    return limitGet != nullptr && limitGet(path, &limit) == 0 ? limit : 0;
}

} // namespace

uint64_t _VEXOCopyFsFileSizeLimitGet(const char *path, int type) {
    if (is_type(type, FsType::fat)) {
        return kFatLimit;
    }
    return is_type(type, FsType::k7fs) ? ask_plugin(path) : 0;
}
