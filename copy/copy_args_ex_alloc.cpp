// A new record to ride beside a VEXOCopyOpt.
#include "copy/copy.h"

#include "support/report.h"

#include <cstdlib>

VEXOCopyArgsEx *VEXOCopyArgsExAlloc(void) {
    auto *record = static_cast<VEXOCopyArgsEx *>(std::calloc(1, sizeof(VEXOCopyArgsEx)));
    if (record == nullptr) {
        VEXO_LOG_ERROR(VEXO_HERE, "Failed to alloc node name, errno=%m");
    }
    return record;
}
