// Makes room for more records in a stream handle.
#include "ea/ea.h"

#include "support/report.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

using namespace vexo;

int VEXOEASAllocEntry(VEXOEAS *eas, int count) {
    constexpr int kUsualCount = 5;
    if (eas == nullptr || count < 0) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const int more = count == 0 ? kUsualCount : count;
    const int there = eas->records == nullptr ? 0 : eas->capacity;
    if (more > INT32_MAX - there) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    const size_t total = static_cast<size_t>(there) + static_cast<size_t>(more);
    // The sizes of 32-bit counts do not overflow 64 bits.
    void *moved = std::realloc(eas->records, total * sizeof *eas->records);
    if (moved == nullptr) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    eas->records = static_cast<VEXOEASRecord *>(moved);
    std::memset(eas->records + there, 0, static_cast<size_t>(more) * sizeof *eas->records);
    eas->capacity = there + more;
    return 0;
}
