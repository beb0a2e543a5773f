// A new record of callbacks with user data.
#include "copy/copy.h"

#include "support/report.h"

#include <cstdlib>

VEXOCopyTHRArgs *VEXOCopyTHRArgsAlloc(void) {
    auto *record = static_cast<VEXOCopyTHRArgs *>(std::calloc(1, sizeof(VEXOCopyTHRArgs)));
    if (record == nullptr) {
        VEXO_LOG_ERROR(VEXO_HERE, "Failed to alloc, errno=%m");
    }
    return record;
}
