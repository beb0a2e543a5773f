// I/O on a stream file's borrowed descriptor, and its header read from it.
#include "ea/stream/file.h"

#include "ea/stream/format.h"
#include "support/report.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo::eas {

namespace {

// What one system call transfers at most: anything less than asked for is a short transfer.
constexpr size_t kLargestTransfer = 0x7ffff000;

int read_attribute_block(int fd, VEXOEASHeader &header, const char *source) {
    if (header.entries[0].length == kFinderInfoSize) {
        // Plain Finder Info: a file without an attribute block.
        header.attrMagic = kAttributeMagic;
        header.dataStart = kHeaderSize;
        header.dataLength = 0;
        header.attrCount = 0;
        return 0;
    }
    // At the place it has in every file of ours, not behind wherever the Finder Info is.
    uint8_t block[kAttributeBlockSize];
    if (!seek_to(fd, kAttributeBlockOffset) || !read_all(fd, block, sizeof block)) {
        return fail(Error::read, VEXO_AT(source));
    }
    parse_attribute_block(block, header);
    return 0;
}

} // namespace

bool seek_to(int fd, uint64_t offset) {
    return ::lseek(fd, static_cast<off_t>(offset), SEEK_SET) >= 0;
}

bool read_all(int fd, void *to, size_t size) {
    auto *at = static_cast<uint8_t *>(to);
    while (size > 0) {
        const size_t part = size < kLargestTransfer ? size : kLargestTransfer;
        if (::read(fd, at, part) != static_cast<ssize_t>(part)) {
            return false;
        }
        at += part;
        size -= part;
    }
    return true;
}

bool write_all(int fd, const void *from, size_t size) {
    const auto *at = static_cast<const uint8_t *>(from);
    while (size > 0) {
        const size_t part = size < kLargestTransfer ? size : kLargestTransfer;
        const ssize_t written = ::write(fd, at, part);
        if (written >= 0 && written != static_cast<ssize_t>(part)) {
            errno = ENOSPC; // a write that ends early says nothing else
        }
        if (written != static_cast<ssize_t>(part)) {
            return false;
        }
        at += part;
        size -= part;
    }
    return true;
}

std::optional<uint64_t> size_of(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        return std::nullopt;
    }
    return static_cast<uint64_t>(status.st_size);
}

bool is_empty(int fd) {
    return ::lseek(fd, 0, SEEK_END) == 0;
}

int read_header(int fd, VEXOEASHeader &header, const char *source) {
    uint8_t prefix[kPrefixSize];
    if (!seek_to(fd, 0) || !read_all(fd, prefix, sizeof prefix)) {
        return fail(Error::read, VEXO_AT(source));
    }
    parse_prefix(prefix, header);
    if (header.entryCount > kMaxEntries) {
        return fail(Error::invalid_argument, VEXO_AT(source));
    }
    uint8_t entries[kMaxEntries * kEntrySize];
    const size_t size = header.entryCount * kEntrySize;
    if (!read_all(fd, entries, size)) {
        return fail(Error::read, VEXO_AT(source));
    }
    parse_entries({entries, size}, header);
    if (!seek_to(fd, header.entries[0].offset) || !read_all(fd, header.finderInfo, sizeof header.finderInfo)) {
        return fail(Error::read, VEXO_AT(source));
    }
    return read_attribute_block(fd, header, source);
}

bool RecordReader::bytes(void *to, size_t size) {
    auto *out = static_cast<uint8_t *>(to);
    while (size > 0) {
        if (m_at == m_filled && !refill()) {
            return false;
        }
        const size_t there = m_filled - m_at;
        const size_t part = size < there ? size : there;
        std::memcpy(out, m_buffer + m_at, part);
        m_at += part;
        out += part;
        size -= part;
    }
    return true;
}

void RecordReader::skip(size_t size) {
    while (size > 0 && (m_at < m_filled || refill())) {
        const size_t there = m_filled - m_at;
        const size_t part = size < there ? size : there;
        m_at += part;
        size -= part;
    }
}

bool RecordReader::refill() {
    const ssize_t got = ::read(m_fd, m_buffer, sizeof m_buffer);
    m_at = 0;
    m_filled = got > 0 ? static_cast<size_t>(got) : 0;
    return got > 0;
}

} // namespace vexo::eas
