// A new record of the file operations.
#include "copy/copy.h"

#include "support/fs_type.h"
#include "support/report.h"

#include <cstdlib>

using namespace vexo;

VEXOCopyArgs *VEXOCopyArgsAlloc(void) {
    auto *record = static_cast<VEXOCopyArgs *>(std::calloc(1, sizeof(VEXOCopyArgs)));
    if (record == nullptr) {
        set_error(Error::out_of_memory, VEXO_HERE);
        return nullptr;
    }
    record->fsTypeSrc = static_cast<int32_t>(FsType::unknown);
    record->fsTypeDst = static_cast<int32_t>(FsType::unknown);
    return record;
}
