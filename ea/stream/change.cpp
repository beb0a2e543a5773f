// One change of a stream file: check that it can be made, load what it keeps, edit, commit.
#include "ea/stream/change.h"

#include "ea/stream/file.h"
#include "ea/stream/format.h"
#include "support/guards.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo::eas {

namespace {

bool is_beyond_limit(uint64_t end) {
    struct rlimit limit {};
    return ::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY && end > limit.rlim_cur;
}

} // namespace

Change::~Change() {
    std::free(m_droppedName);
}

uint64_t Change::records_end() const {
    uint64_t end = kHeaderSize;
    for (uint32_t at = 0; at < m_eas.header.attrCount; ++at) {
        end += record_size(m_eas.records[at].nameLength);
    }
    return end;
}

int Change::check_layout() const {
    if (m_eas.header.attrCount == 0 && m_eas.header.dataLength == 0) {
        return 0;
    }
    uint64_t at = m_eas.header.dataStart;
    bool tidy = at >= records_end();
    for (uint32_t index = 0; tidy && index < m_eas.header.attrCount; ++index) {
        tidy = m_eas.records[index].offset == at;
        at += m_eas.records[index].length;
    }
    if (!tidy || at != uint64_t{m_eas.header.dataStart} + m_eas.header.dataLength) {
        return fail(Error::read, VEXO_AT(m_source));
    }
    return 0;
}

int Change::locate_fork(Fork fork) {
    if (fork == Fork::stays) {
        return 0;
    }
    if (EASGetRForkLocation(&m_eas, &m_forkOffset, &m_forkLength) != 0) {
        return -1;
    }
    // A fork that was cut off by a growing truncation may reach behind the end of the file, but it never is longer than
    // the file: where it is, its length was made up or its end is lost, and nothing is extended for that.
    if (m_forkLength > m_size) {
        m_forkLength = static_cast<uint32_t>(m_size > m_forkOffset ? m_size - m_forkOffset : 0);
    }
    m_forkMoves = m_forkLength > 0 && m_forkOffset != m_end;
    return 0;
}

int Change::prepare(uint64_t end, Fork fork, Unneeded unneeded) {
    const VEXOEASEntry &first = m_eas.header.entries[0];
    const uint32_t finderInfoOffset = first.id == kFinderInfoId ? kFinderInfoOffset : first.offset;
    if (end > UINT32_MAX || end < finderInfoOffset) {
        return fail(Error::invalid_argument, VEXO_AT(m_source));
    }
    struct stat status {};
    if (::fstat(m_eas.fd, &status) != 0) {
        return fail(Error::read, VEXO_AT(m_source));
    }
    m_size = static_cast<uint64_t>(status.st_size);
    m_block = status.st_blksize;
    m_end = end;
    if (locate_fork(fork) != 0) {
        return -1;
    }
    const uint64_t start = m_eas.header.dataStart;
    const uint64_t valuesEnd = start + m_eas.header.dataLength;
    // Room that other makers leave before the values lies in the file, or was made up and is not made for it either.
    const bool hasStart = m_eas.header.attrCount == 0 || start <= std::max(m_size, records_end());
    const uint64_t neededEnd = unneeded.to == valuesEnd ? unneeded.from : valuesEnd;
    if (!hasStart || (neededEnd > m_size && neededEnd > start)) {
        return fail(Error::read, VEXO_AT(m_source));
    }
    // What is written over lies before the values' end, or before the fork that moves towards the start.
    const uint64_t forkBegin = m_forkMoves ? std::min<uint64_t>(m_forkOffset, end + m_forkLength) : 0;
    return load(std::max({neededEnd, end, forkBegin}));
}

// What a fork that moves towards the end is moved over.
void Change::find_behind() {
    const uint64_t forkEnd = uint64_t{m_forkOffset} + m_forkLength;
    m_behind = std::max(m_end, forkEnd);
    const uint64_t end = std::min(m_size, m_end + m_forkLength);
    m_behindBytes = m_forkMoves && end > m_behind ? end - m_behind : 0;
}

int Change::load(uint64_t end) {
    m_count = m_eas.header.attrCount;
    find_behind();
    const uint64_t toRead = std::min(end, m_size);
    m_before = HeapBuffer::uninitialised(m_count * sizeof(VEXOEASRecord) + toRead + m_behindBytes);
    if (!m_before) {
        return fail(Error::out_of_memory, VEXO_AT(m_source));
    }
    uint8_t *bytes = m_before.data() + m_count * sizeof(VEXOEASRecord);
    if (read_part(0, toRead, bytes) != 0 || read_part(m_behind, m_behind + m_behindBytes, bytes + toRead) != 0) {
        return -1;
    }
    m_savedBytes = toRead; // from now on they are read from there
    m_header = m_eas.header;
    if (m_count > 0) {
        std::memcpy(m_before.data(), m_eas.records, m_count * sizeof(VEXOEASRecord));
    }
    return 0;
}

// A full disk in the middle of a change would leave a header that speaks of values that are not there.
int Change::reserve() const {
    // Towards the start the fork takes no room that it does not have.
    const uint64_t end = m_end + (m_forkMoves && m_end > m_forkOffset ? m_forkLength : 0);
    if (is_beyond_limit(end)) {
        errno = EFBIG;
        return fail(Error::write, VEXO_AT(m_source));
    }
    // What lies in the last block has its place already.
    const auto block = static_cast<uint64_t>(std::clamp<blksize_t>(m_block, 1, 4096));
    if (end <= (m_size + block - 1) / block * block) {
        return 0;
    }
    const auto from = static_cast<off_t>(m_size);
    if (::fallocate(m_eas.fd, FALLOC_FL_KEEP_SIZE, from, static_cast<off_t>(end) - from) == 0) {
        return 0;
    }
    const bool isFull = errno == ENOSPC || errno == EDQUOT || errno == EFBIG;
    // A volume that cannot reserve has to be written to. Of an empty file there is nothing to lose.
    if (!isFull && (m_size == 0 || fill(end))) {
        return 0;
    }
    give_back();
    return fail(Error::write, VEXO_AT(m_source));
}

bool Change::fill(uint64_t end) const {
    static constexpr uint8_t kZeros[4096] = {};
    if (!seek_to(m_eas.fd, m_size)) {
        return false;
    }
    for (uint64_t at = m_size; at < end; at += sizeof kZeros) {
        if (!write_all(m_eas.fd, kZeros, std::min<uint64_t>(sizeof kZeros, end - at))) {
            return false;
        }
    }
    return true;
}

// The file ends where it did, and nothing is reserved behind it.
void Change::give_back() const {
    const KeepErrors keep;
    const auto size = static_cast<off_t>(m_size);
    if (::ftruncate(m_eas.fd, size) != 0) {
        // What was reserved before the volume was full stays reserved; the file itself is as it was.
    }
    // Some volumes take a size that does not change for nothing to do.
    constexpr off_t kRest = off_t{1} << 33;
    (void)::fallocate(m_eas.fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, size, kRest);
}

int Change::read_part(uint64_t from, uint64_t to, uint8_t *out) const {
    if (from >= to) {
        return 0;
    }
    if (m_savedBytes > 0) {
        std::memcpy(out, saved_bytes() + from, to - from);
        return 0;
    }
    if (!seek_to(m_eas.fd, from)) {
        return fail(Error::seek, VEXO_AT(m_source));
    }
    if (!read_all(m_eas.fd, out, to - from)) {
        return fail(Error::read, VEXO_AT(m_source));
    }
    return 0;
}

int Change::gather(uint8_t *to) const {
    const uint64_t start = m_eas.header.dataStart;
    return read_part(start, start + m_eas.header.dataLength, to);
}

int Change::gather(uint32_t index, Unneeded unneeded, uint8_t *to) const {
    const uint64_t start = m_eas.header.dataStart;
    const uint64_t end = start + m_eas.header.dataLength;
    const uint64_t value = m_eas.records[index].offset;
    const uint64_t valueEnd = value + m_eas.records[index].length;
    uint8_t *own = to + (end - start) - (valueEnd - value);
    if (read_part(start, value, to) != 0 || read_part(valueEnd, end, to + (value - start)) != 0 ||
        read_part(value, unneeded.from, own) != 0 ||
        read_part(unneeded.to, valueEnd, own + (unneeded.to - value)) != 0) {
        return -1;
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
    m_droppedName = gone.name; // until it is known that it does not come back
    gone = {};
}

int Change::commit(std::span<const uint8_t> values, Error seekError) {
    if (write(values, seekError) == 0) {
        return 0;
    }
    undo();
    return -1;
}

int Change::write(std::span<const uint8_t> values, Error seekError) {
    if (m_forkMoves) {
        if (EASMoveRFork(&m_eas, static_cast<uint32_t>(m_end), m_forkOffset, m_forkLength) != 0) {
            return -1;
        }
        m_forkMoved = true;
    }
    if (VEXOEASWriteHeader(&m_eas) != 0) {
        return -1;
    }
    if (!seek_to(m_eas.fd, m_eas.header.dataStart)) {
        return fail(seekError, VEXO_AT(m_source));
    }
    if (!write_all(m_eas.fd, values.data(), values.size())) {
        return fail(Error::write, VEXO_AT(m_source));
    }
    return 0;
}

void Change::undo() {
    const KeepErrors keep;
    if (m_forkMoved) {
        (void)EASMoveRFork(&m_eas, m_forkOffset, static_cast<uint32_t>(m_end), m_forkLength);
    }
    if (seek_to(m_eas.fd, 0)) {
        (void)write_all(m_eas.fd, saved_bytes(), m_savedBytes);
    }
    if (seek_to(m_eas.fd, m_behind)) {
        (void)write_all(m_eas.fd, saved_bytes() + m_savedBytes, m_behindBytes);
    }
    give_back();

    const uint32_t count = m_eas.header.attrCount;
    for (uint32_t at = m_count; at < count; ++at) {
        std::free(m_eas.records[at].name);
        m_eas.records[at] = {};
    }
    if (m_count > 0) {
        std::memcpy(m_eas.records, m_before.data(), m_count * sizeof(VEXOEASRecord));
    }
    m_eas.header = m_header;
    m_droppedName = nullptr;
}

} // namespace vexo::eas
