// Changes the length of an attribute's value.
#include "ea/ea.h"

#include "ea/stream/change.h"
#include "ea/stream/file.h"
#include "support/heap.h"
#include "support/report.h"

#include <algorithm>
#include <cstring>

using namespace vexo;

namespace {

// The resource fork stays where it is and the file keeps its length, on purpose: callers truncate to 0 before they
// write a value anew, and only that write moves the fork.
int change_length(VEXOEAS &eas, uint32_t index, uint32_t length) {
    eas::Change change(eas, VEXO_SOURCE);
    if (change.check_values() != 0) {
        return -1;
    }
    const uint32_t before = eas.records[index].length;
    const uint64_t total = uint64_t{eas.header.dataLength} - before + length;
    if (change.prepare(eas.header.dataStart + total, eas::Change::Fork::stays) != 0) {
        return -1;
    }
    const uint64_t loaded = eas.header.dataLength;
    HeapBuffer values = HeapBuffer::uninitialised(std::max(loaded, total) + 1);
    if (!values) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    if (change.take_out(index, values.data(), eas::Change::Then::last) != 0) {
        return -1;
    }
    if (total > loaded) {
        std::memset(values.data() + loaded, 0, total - loaded);
    }
    eas.records[eas.header.attrCount - 1].length = length;
    eas.header.dataLength = static_cast<uint32_t>(total);
    if (VEXOEASWriteHeader(&eas) != 0) {
        return -1;
    }
    return change.write_values({values.data(), total}, Error::seek);
}

} // namespace

int VEXOEASTruncate(VEXOEAS *eas, const char *name, uint32_t length) {
    if (!eas::is_open(eas) || name == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (eas->lockState != F_WRLCK) {
        return fail(Error::permission, VEXO_HERE);
    }
    const int index = VEXOEASSearch(eas, name);
    return index < 0 ? -1 : change_length(*eas, static_cast<uint32_t>(index), length);
}
