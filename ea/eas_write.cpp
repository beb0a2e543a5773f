// Writes an attribute, or a piece of it, into a stream file.
#include "ea/ea.h"

#include "ea/stream/change.h"
#include "ea/stream/file.h"
#include "ea/stream/format.h"
#include "support/heap.h"
#include "support/report.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

using namespace vexo;

namespace {

constexpr int kAllowOverwrite = 1;
constexpr int kExistingOnly = 2;

struct Piece {
    const void *data;
    uint64_t size, offset;

    uint64_t end() const { return offset + size; }
};

bool is_valid(const VEXOEAS *eas, const char *name, const void *data, uint32_t size) {
    if (!eas::is_open(eas) || name == nullptr || (data == nullptr && size > 0)) {
        return false;
    }
    const size_t length = ::strnlen(name, eas::kLongestName + 1);
    // The result could not tell a larger size.
    return length <= eas::kLongestName && size <= INT32_MAX;
}

void put(const Piece &piece, uint8_t *value) {
    if (piece.size > 0) {
        std::memcpy(value + piece.offset, piece.data, piece.size);
    }
}

void append(VEXOEAS &eas, HeapString name, uint8_t nameLength, uint32_t length) {
    const uint32_t added = eas::record_size(nameLength);
    if (eas.header.attrCount == 0) {
        eas.header.dataStart = eas::kHeaderSize;
    }
    for (uint32_t at = 0; at < eas.header.attrCount; ++at) {
        eas.records[at].offset += added;
    }
    eas.header.dataStart += added;
    VEXOEASRecord &record = eas.records[eas.header.attrCount];
    record = {eas.header.dataStart + eas.header.dataLength, length, 0, nameLength, name.release()};
    ++eas.header.attrCount;
    eas.header.dataLength += length;
}

int write_new(VEXOEAS &eas, const char *name, const Piece &piece) {
    eas::Change change(eas, VEXO_SOURCE);
    if (eas.header.attrCount == eas::kMaxAttributes) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const auto nameLength = static_cast<uint8_t>(std::strlen(name) + 1);
    const uint64_t start = eas.header.attrCount == 0 ? eas::kHeaderSize : eas.header.dataStart;
    const uint64_t length = eas.header.dataLength + piece.end();
    const uint64_t end = start + eas::record_size(nameLength) + length;
    if (change.check_layout() != 0 || change.prepare(end, eas::Change::Fork::moves, {}) != 0) {
        return -1;
    }
    if (eas.capacity <= eas.header.attrCount && VEXOEASAllocEntry(&eas, 0) != 0) {
        return -1;
    }
    HeapString copy(name);
    HeapBuffer values = HeapBuffer::uninitialised(length + 1);
    if (!copy || !values) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    uint8_t *value = values.data() + eas.header.dataLength;
    std::memset(value, 0, piece.offset);
    put(piece, value);
    if (change.gather(values.data()) != 0 || change.reserve() != 0) {
        return -1;
    }
    append(eas, std::move(copy), nameLength, static_cast<uint32_t>(piece.end()));
    return change.commit({values.data(), length}, Error::seek);
}

int write_existing(VEXOEAS &eas, uint32_t index, const Piece &piece) {
    eas::Change change(eas, VEXO_SOURCE);
    if (change.check_layout() != 0) {
        return -1;
    }
    const uint64_t at = eas.records[index].offset;
    const uint64_t before = eas.records[index].length;
    const uint64_t after = std::max(before, piece.end()); // a write never shortens a value
    const uint64_t length = eas.header.dataLength - before + after;
    const eas::Change::Unneeded over{at + std::min(before, piece.offset), at + std::min(before, piece.end())};
    if (change.prepare(eas.header.dataStart + length, eas::Change::Fork::moves, over) != 0) {
        return -1;
    }
    HeapBuffer values = HeapBuffer::uninitialised(length + 1);
    if (!values) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    uint8_t *value = values.data() + (length - after);
    std::memset(value + before, 0, after - before);
    if (change.gather(index, over, values.data()) != 0 || change.reserve() != 0) {
        return -1;
    }
    put(piece, value);
    change.move_to_end(index);
    eas.records[eas.header.attrCount - 1].length = static_cast<uint32_t>(after);
    eas.header.dataLength = static_cast<uint32_t>(length);
    return change.commit({values.data(), length}, Error::seek);
}

} // namespace

int VEXOEASWrite(VEXOEAS *eas, const char *name, const void *data, uint32_t size, uint32_t offset, int flags) {
    if (!is_valid(eas, name, data, size)) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (eas->lockState != F_WRLCK) {
        return fail(Error::permission, VEXO_HERE);
    }
    const Piece piece{data, size, offset};
    const int index = VEXOEASSearch(eas, name);
    int result = 0;
    if (index >= 0 && (flags & kAllowOverwrite) == 0) {
        errno = EEXIST;
        // With nothing to write the call asks whether the attribute exists, and callers do.
        return size == 0 ? 0 : fail(Error::invalid_argument, VEXO_HERE);
    }
    if (index >= 0) {
        result = write_existing(*eas, static_cast<uint32_t>(index), piece);
    } else if ((flags & kExistingOnly) != 0) {
        errno = ENOENT;
        return -1;
    } else {
        result = write_new(*eas, name, piece);
    }
    return result == 0 ? static_cast<int>(size) : -1;
}
