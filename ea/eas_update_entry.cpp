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
    if (change.check_layout() != 0) {
        return -1;
    }
    const VEXOEASRecord &record = eas->records[index];
    if (bufLen < eas->header.dataLength - (remove != 0 ? record.length : 0)) {
        return fail(Error::out_of_memory_ea, VEXO_HERE);
    }
    const auto at = static_cast<uint32_t>(index);
    const uint64_t valueEnd = uint64_t{record.offset} + record.length;
    if (change.gather(at, {remove != 0 ? record.offset : valueEnd, valueEnd}, static_cast<uint8_t *>(buf)) != 0) {
        return -1;
    }
    change.move_to_end(at);
    if (remove != 0) {
        change.drop_last();
    }
    return 0;
}
