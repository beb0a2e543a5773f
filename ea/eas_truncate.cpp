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

// The resource fork stays where it is and the file keeps its length, on purpose: no stream that is written here has a
// fork, and without one a value is cut without the file being written twice.
int change_length(VEXOEAS &eas, uint32_t index, uint32_t length) {
    eas::Change change(eas, VEXO_SOURCE);
    if (change.check_layout() != 0) {
        return -1;
    }
    const uint64_t value = eas.records[index].offset;
    const uint64_t before = eas.records[index].length;
    const uint64_t others = eas.header.dataLength - before;
    const uint64_t kept = std::min<uint64_t>(before, length);
    const eas::Change::Unneeded cut{value + kept, value + before};
    if (change.prepare(eas.header.dataStart + others + length, eas::Change::Fork::stays, cut) != 0) {
        return -1;
    }
    HeapBuffer values = HeapBuffer::uninitialised(others + length + 1);
    if (!values) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    std::memset(values.data() + others + kept, 0, length - kept);
    if (change.gather(index, cut, values.data()) != 0 || change.reserve() != 0) {
        return -1;
    }
    change.move_to_end(index);
    eas.records[eas.header.attrCount - 1].length = length;
    eas.header.dataLength = static_cast<uint32_t>(others + length);
    return change.commit({values.data(), others + length}, Error::seek);
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
