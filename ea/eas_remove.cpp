// Removes an attribute from a stream file, which gets shorter.
#include "ea/ea.h"

#include "ea/stream/change.h"
#include "ea/stream/file.h"
#include "ea/stream/format.h"
#include "support/heap.h"
#include "support/report.h"

#include <unistd.h>

using namespace vexo;

namespace {

int remove_entry(VEXOEAS &eas, uint32_t index) {
    eas::Change change(eas, VEXO_SOURCE);
    if (change.check_values() != 0) {
        return -1;
    }
    const uint64_t end = uint64_t{eas.header.dataStart} - eas::record_size(eas.records[index].nameLength) +
                         eas.header.dataLength - eas.records[index].length;
    if (change.prepare(end, eas::Change::Fork::moves) != 0) {
        return -1;
    }
    HeapBuffer values = HeapBuffer::uninitialised(eas.header.dataLength);
    if (!values) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    if (change.take_out(index, values.data(), eas::Change::Then::gone) != 0 ||
        change.commit({values.data(), eas.header.dataLength}, Error::write) != 0) {
        return -1;
    }
    const VEXOEASEntry &fork = eas.header.entries[1];
    if (::ftruncate(eas.fd, static_cast<off_t>(uint64_t{fork.offset} + fork.length)) != 0) {
        return fail(Error::file_operation, VEXO_HERE);
    }
    return 0;
}

} // namespace

int VEXOEASRemove(VEXOEAS *eas, const char *name) {
    if (!eas::is_open(eas) || name == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (eas->lockState != F_WRLCK) {
        return fail(Error::permission, VEXO_HERE);
    }
    const int index = VEXOEASSearch(eas, name);
    return index < 0 ? 0 : remove_entry(*eas, static_cast<uint32_t>(index));
}
