// Writes a stream file's header and records.
#include "ea/ea.h"

#include "ea/stream/file.h"
#include "ea/stream/format.h"
#include "support/report.h"

using namespace vexo;

namespace {

// Gathers records, so that many small ones are one write.
class RecordWriter {
  public:
    explicit RecordWriter(int fd) : m_fd(fd) {}

    [[nodiscard]] bool put(const VEXOEASRecord &record) {
        const size_t size = eas::record_size(record.nameLength);
        if (size > sizeof m_buffer - m_filled && !flush()) {
            return false;
        }
        m_filled += eas::put_record(record, std::span(m_buffer).subspan(m_filled));
        return true;
    }
    [[nodiscard]] bool flush() {
        const bool written = eas::write_all(m_fd, m_buffer, m_filled);
        m_filled = 0;
        return written;
    }

  private:
    int m_fd;
    size_t m_filled = 0;
    uint8_t m_buffer[1024];
    static_assert(sizeof m_buffer >= eas::kLongestRecord);
};

// What follows from where the values are.
int set_sizes(VEXOEASHeader &header) {
    const uint64_t end = uint64_t{header.dataStart} + header.dataLength;
    VEXOEASEntry &finderInfo = header.entries[0];
    // Where this header has it, wherever it was read from.
    const uint32_t offset = finderInfo.id == eas::kFinderInfoId ? eas::kFinderInfoOffset : finderInfo.offset;
    if (end > UINT32_MAX || end < offset) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    finderInfo.offset = offset;
    header.totalSize = static_cast<uint32_t>(end);
    header.entries[1].offset = header.totalSize;
    finderInfo.length = header.totalSize - finderInfo.offset;
    return 0;
}

} // namespace

int VEXOEASWriteHeader(VEXOEAS *eas) {
    if (!eas::is_open(eas)) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (set_sizes(eas->header) != 0) {
        return -1;
    }
    uint8_t bytes[eas::kHeaderSize];
    eas::put_header(eas->header, bytes);
    if (!eas::seek_to(eas->fd, 0)) {
        return fail(Error::seek, VEXO_HERE);
    }
    if (!eas::write_all(eas->fd, bytes, sizeof bytes)) {
        return fail(Error::write, VEXO_HERE);
    }
    RecordWriter writer(eas->fd);
    for (uint32_t at = 0; at < eas->header.attrCount; ++at) {
        if (!writer.put(eas->records[at])) {
            return fail(Error::write, VEXO_HERE);
        }
    }
    if (!writer.flush()) {
        return fail(Error::write, VEXO_HERE);
    }
    return 0;
}
