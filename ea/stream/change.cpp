// One change of a stream file: check that it can be made, load the values, edit, commit.
#include "ea/stream/change.h"

#include "ea/stream/file.h"
#include "ea/stream/format.h"
#include "support/guards.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace vexo::eas {

uint64_t Change::records_end() const {
    uint64_t end = kHeaderSize;
    for (uint32_t at = 0; at < m_eas.header.attrCount; ++at) {
        end += record_size(m_eas.records[at].nameLength);
    }
    return end;
}

int Change::check_values() const {
    if (m_eas.header.attrCount == 0 && m_eas.header.dataLength == 0) {
        return 0;
    }
    uint64_t at = m_eas.header.dataStart;
    bool tidy = at >= records_end();
    for (uint32_t index = 0; tidy && index < m_eas.header.attrCount; ++index) {
        tidy = m_eas.records[index].offset == at;
        at += m_eas.records[index].length;
    }
    const auto size = size_of(m_eas.fd);
    if (!tidy || at != uint64_t{m_eas.header.dataStart} + m_eas.header.dataLength || !size || at > *size) {
        return fail(Error::read, VEXO_AT(m_source));
    }
    return 0;
}

int Change::prepare(uint64_t end, Fork fork) const {
    const VEXOEASEntry &first = m_eas.header.entries[0];
    const uint32_t finderInfoOffset = first.id == kFinderInfoId ? kFinderInfoOffset : first.offset;
    if (end > UINT32_MAX || end < finderInfoOffset) {
        return fail(Error::invalid_argument, VEXO_AT(m_source));
    }
    uint32_t forkOffset = 0;
    uint32_t forkLength = 0;
    if (fork == Fork::moves && EASGetRForkLocation(&m_eas, &forkOffset, &forkLength) != 0) {
        return -1;
    }
    const auto size = size_of(m_eas.fd);
    // A fork that was cut off by a growing truncation may reach behind the end of the file, but it never is longer than
    // the file: a length that is was made up, and would have the file extended for nothing.
    if (!size || forkLength > *size) {
        return fail(Error::read, VEXO_AT(m_source));
    }
    return reserve(*size, end + forkLength);
}

// A full disk in the middle of a change would leave a header that speaks of values that are not there.
int Change::reserve(uint64_t fileSize, uint64_t end) const {
    constexpr uint64_t kBlock = 4096; // what lies in the last block has its place already
    const uint64_t allocated = (fileSize + kBlock - 1) / kBlock * kBlock;
    if (fileSize == 0 || end <= allocated) {
        return 0;
    }
    const auto from = static_cast<off_t>(fileSize);
    if (::fallocate(m_eas.fd, FALLOC_FL_KEEP_SIZE, from, static_cast<off_t>(end) - from) == 0 ||
        (errno != ENOSPC && errno != EDQUOT && errno != EFBIG)) {
        return 0; // a volume that cannot reserve tells when it is written to
    }
    const KeepErrno keep;
    if (::ftruncate(m_eas.fd, from) != 0) {
        // What was reserved before the volume was full stays reserved; the file itself is as it was.
    }
    return fail(Error::write, VEXO_AT(m_source));
}

int Change::read_part(uint64_t from, uint64_t to, uint8_t *&out) const {
    if (from == to) {
        return 0;
    }
    if (!seek_to(m_eas.fd, from)) {
        return fail(Error::seek, VEXO_AT(m_source));
    }
    if (!read_all(m_eas.fd, out, to - from)) {
        return fail(Error::read, VEXO_AT(m_source));
    }
    out += to - from;
    return 0;
}

int Change::read_values(uint8_t *to) const {
    const uint64_t start = m_eas.header.dataStart;
    return read_part(start, start + m_eas.header.dataLength, to);
}

int Change::take_out(uint32_t index, uint8_t *buffer, Then then) {
    const uint64_t start = m_eas.header.dataStart;
    const uint64_t end = start + m_eas.header.dataLength;
    const uint64_t value = m_eas.records[index].offset;
    const uint64_t valueEnd = value + m_eas.records[index].length;
    if (read_part(start, value, buffer) != 0 || read_part(valueEnd, end, buffer) != 0 ||
        (then == Then::last && read_part(value, valueEnd, buffer) != 0)) {
        return -1;
    }
    move_to_end(index);
    if (then == Then::gone) {
        drop_last();
    }
    return 0;
}

void Change::move_to_end(uint32_t index) {
    const uint32_t last = m_eas.header.attrCount - 1U;
    if (index == last) {
        return;
    }
    VEXOEASRecord moved = m_eas.records[index];
    for (uint32_t at = index; at < last; ++at) {
        m_eas.records[at] = m_eas.records[at + 1];
        m_eas.records[at].offset -= moved.length;
    }
    moved.offset = m_eas.records[last - 1].offset + m_eas.records[last - 1].length;
    m_eas.records[last] = moved;
}

void Change::drop_last() {
    const uint32_t last = m_eas.header.attrCount - 1U;
    VEXOEASRecord &gone = m_eas.records[last];
    const uint32_t freed = record_size(gone.nameLength);
    for (uint32_t at = 0; at <= last; ++at) {
        m_eas.records[at].offset -= freed;
    }
    m_eas.header.attrCount = static_cast<uint16_t>(last);
    m_eas.header.dataLength -= gone.length;
    m_eas.header.dataStart = m_eas.records[0].offset;
    std::free(gone.name);
    gone = {};
}

int Change::commit(std::span<const uint8_t> values, Error seekError) {
    uint32_t forkOffset = 0;
    uint32_t forkLength = 0;
    if (EASGetRForkLocation(&m_eas, &forkOffset, &forkLength) != 0 ||
        EASMoveRFork(&m_eas, m_eas.header.dataStart + m_eas.header.dataLength, forkOffset, forkLength) != 0 ||
        VEXOEASWriteHeader(&m_eas) != 0) {
        return -1;
    }
    return write_values(values, seekError);
}

int Change::write_values(std::span<const uint8_t> values, Error seekError) const {
    if (!seek_to(m_eas.fd, m_eas.header.dataStart)) {
        return fail(seekError, VEXO_AT(m_source));
    }
    if (!write_all(m_eas.fd, values.data(), values.size())) {
        return fail(Error::write, VEXO_AT(m_source));
    }
    return 0;
}

} // namespace vexo::eas
