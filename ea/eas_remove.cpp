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
    if (change.check_layout() != 0) {
        return -1;
    }
    const VEXOEASRecord &record = eas.records[index];
    const eas::Change::Unneeded value{record.offset, uint64_t{record.offset} + record.length};
    const uint64_t length = eas.header.dataLength - record.length;
    const uint64_t end = uint64_t{eas.header.dataStart} - eas::record_size(record.nameLength) + length;
    if (change.prepare(end, eas::Change::Fork::moves, value) != 0) {
        return -1;
    }
    HeapBuffer values = HeapBuffer::uninitialised(length);
    if (!values) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    if (change.gather(index, value, values.data()) != 0 || change.reserve() != 0) {
        return -1;
    }
    change.move_to_end(index);
    change.drop_last();
    if (change.commit({values.data(), length}, Error::write) != 0) {
        return -1;
    }
    if (::ftruncate(eas.fd, static_cast<off_t>(change.file_end())) != 0) {
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
