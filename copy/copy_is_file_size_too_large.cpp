// Refuses a file that is larger than its destination takes.
#include "copy/copy.h"

#include "support/fs_type.h"
#include "support/report.h"

#include <cstdint>

using namespace vexo;

int _VEXOCopyIsFileSizeTooLarge(VEXOCopyArgs *args, const char *path, int type, uint64_t size) {
    // A limit that the caller has set once spares the look-up for each file.
    const uint64_t limit = args != nullptr && args->dstFsFileSizeLimit != 0 ? args->dstFsFileSizeLimit
                                                                            : _VEXOCopyFsFileSizeLimitGet(path, type);
    if (limit == 0 || size <= limit) {
        return 0;
    }
    set_error(is_type(type, FsType::fat) ? Error::too_large_for_fat : Error::too_large, VEXO_HERE);
    return 1;
}
