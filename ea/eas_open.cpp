// Opens a stream file: takes its lock, reads header and records.
#include "ea/ea.h"

#include "ea/stream/file.h"
#include "ea/stream/format.h"
#include "ea/stream/handle.h"
#include "support/report.h"

#include <cstdlib>

using namespace vexo;

namespace {

// The smallest record, nameless, but for the last one's padding: a file that is too short for the records it claims
// is turned away before memory is asked for them.
bool has_room_for_records(const VEXOEAS &eas) {
    const uint64_t count = eas.header.attrCount;
    if (count == 0) {
        return true;
    }
    const auto size = eas::size_of(eas.fd);
    return size && *size >= eas::kHeaderSize + (count - 1) * eas::record_size(0) + eas::kRecordFixedSize;
}

int read_record(eas::RecordReader &reader, VEXOEASRecord &record) {
    uint8_t fixed[eas::kRecordFixedSize];
    if (!reader.bytes(fixed, sizeof fixed)) {
        return fail(Error::read, VEXO_HERE);
    }
    record = eas::parse_record(fixed);
    // One byte more: a name in a file need not end in a NUL.
    record.name = static_cast<char *>(std::calloc(record.nameLength + 1U, 1));
    if (record.name == nullptr) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    if (!reader.bytes(record.name, record.nameLength)) {
        return fail(Error::read, VEXO_HERE);
    }
    reader.skip(eas::record_size(record.nameLength) - eas::kRecordFixedSize - record.nameLength);
    return 0;
}

int read_records(VEXOEAS &eas) {
    if (!has_room_for_records(eas)) {
        return fail(Error::read, VEXO_HERE);
    }
    if (VEXOEASAllocEntry(&eas, eas.header.attrCount) != 0) {
        return -1;
    }
    eas::RecordReader reader(eas.fd);
    for (uint32_t at = 0; at < eas.header.attrCount; ++at) {
        if (read_record(reader, eas.records[at]) != 0) {
            return -1;
        }
    }
    return 0;
}

int load(VEXOEAS &eas) {
    if (eas::is_empty(eas.fd)) {
        eas.header = eas::new_header();
        return VEXOEASAllocEntry(&eas, 0);
    }
    if (eas::read_header(eas.fd, eas.header, VEXO_SOURCE) != 0) {
        return -1;
    }
    return read_records(eas);
}

} // namespace

VEXOEAS *VEXOEASOpen(int fd, int lockType) {
    if (fd < 0) {
        set_error(Error::invalid_argument, VEXO_HERE);
        return nullptr;
    }
    StreamHandle handle(static_cast<VEXOEAS *>(std::calloc(1, sizeof(VEXOEAS))));
    if (!handle) {
        set_error(Error::out_of_memory, VEXO_HERE);
        return nullptr;
    }
    handle->fd = fd;
    handle->lockState = F_UNLCK;
    if (VEXOEASLockSet(handle.get(), lockType) != 0 || load(*handle.get()) != 0) {
        return nullptr;
    }
    return handle.release();
}
