// Takes a value out of the value area: a building block of the writers, for callers that edit a stream themselves.
#include "ea/ea.h"

#include "ea/stream/change.h"
#include "ea/stream/file.h"
#include "support/report.h"

using namespace vexo;

int VEXOEASUpdateEntry(VEXOEAS *eas, int index, void *buf, uint32_t bufLen, int remove) {
    if (!eas::is_open(eas) || index < 0 || index >= eas->header.attrCount || buf == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    eas::Change change(*eas, VEXO_SOURCE);
    if (change.check_values() != 0) {
        return -1;
    }
    const uint32_t needed = eas->header.dataLength - (remove != 0 ? eas->records[index].length : 0);
    if (bufLen < needed) {
        return fail(Error::out_of_memory_ea, VEXO_HERE);
    }
    using Then = eas::Change::Then;
    return change.take_out(static_cast<uint32_t>(index), static_cast<uint8_t *>(buf),
                           remove != 0 ? Then::gone : Then::last);
}
