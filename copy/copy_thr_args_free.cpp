// Releases a record; what its pointers point to is its owner's.
#include "copy/copy.h"

#include <cstdlib>

void VEXOCopyTHRArgsFree(VEXOCopyTHRArgs *record) {
    std::free(record);
}
