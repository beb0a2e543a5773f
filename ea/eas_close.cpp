// Frees a stream handle and releases its lock; the descriptor stays the caller's.
#include "ea/ea.h"

#include "ea/stream/file.h"
#include "support/report.h"

#include <cstdlib>

using namespace vexo;

int VEXOEASClose(VEXOEAS *eas) {
    if (eas == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    for (int32_t at = 0; eas->records != nullptr && at < eas->capacity; ++at) {
        std::free(eas->records[at].name);
    }
    std::free(eas->records);
    const int result = eas::is_locked(*eas) ? VEXOEASLockSet(eas, F_UNLCK) : 0;
    std::free(eas);
    return result;
}
