// Where a stream file's resource fork lies now.
#include "ea/ea.h"

#include "support/report.h"

using namespace vexo;

int EASGetRForkLocation(const VEXOEAS *eas, uint32_t *oldOffset, uint32_t *length) {
    if (eas == nullptr || oldOffset == nullptr || length == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const int index = EASGetFinderInfoIndex(&eas->header);
    if (index < 0) {
        return -1;
    }
    // Behind the Finder Info with its attribute block, whatever offset its own entry names.
    const VEXOEASEntry &finderInfo = eas->header.entries[index];
    const VEXOEASEntry &fork = eas->header.entries[1 - index];
    if (finderInfo.length > UINT32_MAX - finderInfo.offset) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    *oldOffset = finderInfo.offset + finderInfo.length;
    *length = fork.length;
    return 0;
}
