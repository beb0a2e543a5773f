// Which of a header's two entries is the Finder Info.
#include "ea/ea.h"

#include "ea/stream/format.h"
#include "support/report.h"

using namespace vexo;

int EASGetFinderInfoIndex(const VEXOEASHeader *header) {
    if (header == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    for (int index = 0; index < 2; ++index) {
        if (header->entries[index].id == eas::kFinderInfoId) {
            return index;
        }
    }
    return fail(Error::read, VEXO_HERE);
}
