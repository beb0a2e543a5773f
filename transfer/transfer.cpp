#include "transfer/transfer.h"

#include "support/errno_table.h"
#include "support/heap.h"
#include "support/report.h"
#include "transfer/write_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo {
namespace {

constexpr int64_t kLargestBlock = int64_t{8} * 1024 * 1024;

// EFAULT shares its code with refused permissions: callers know it so.
constexpr ErrnoRow kReadErrors[] = {
    {EIO, Error::io},
    {EBADF, Error::io},
    {ENXIO, Error::device},
    {EFAULT, Error::permission},
    {EHOSTDOWN, Error::host_down},
};
constexpr ErrnoRow kWriteErrors[] = {
    {EIO, Error::io},          {EBADF, Error::io},        {ENXIO, Error::device},        {EFAULT, Error::permission},
    {EFBIG, Error::too_large}, {ENOSPC, Error::no_space}, {EHOSTDOWN, Error::host_down}, {EDQUOT, Error::quota},
};

// Fewer blocks on disk than the size asks for. Dense files are told apart here, so that they pay for no look-ups.
bool is_sparse(const struct stat &status) {
    return status.st_blocks < status.st_size / 512;
}

bool is_sparse(int fd) {
    struct stat status = {};
    return ::fstat(fd, &status) == 0 && is_sparse(status);
}

class Transfer {
  public:
    Transfer(int srcFd, int dstFd, int64_t size, const TransferCallbacks &callbacks, const char *source)
        : m_srcFd(srcFd), m_dstFd(dstFd), m_size(size), m_callbacks(callbacks), m_source(source) {}

    int run(const struct stat *srcStatus);

  private:
    int copy_extents();
    int find_extent();
    int skip_gap();
    int copy_extent();
    int copy_block(int64_t remaining);
    int64_t move_in_kernel(int64_t wanted) const;
    int read_and_write(int64_t wanted, int64_t &moved);
    int64_t next_read_size();
    int find_next_data();
    int finish() const;
    int read_failed(int number) const;
    int write_failed(int number) const;

    int m_srcFd;
    int m_dstFd;
    int64_t m_size;
    const TransferCallbacks &m_callbacks;
    const char *m_source; // the front door's name

    bool m_sparse = false;
    HeapBuffer m_buffer;
    int64_t m_readSize = kLargestBlock;
    int64_t m_lastBytes = 0; // of the last read
    int64_t m_offset = 0;    // bytes done, holes included

    int64_t m_dataStart = 0;         // of the current extent
    int64_t m_extentEnd = 0;         // of the current extent
    int64_t m_previousExtentEnd = 0; // the gap before the current extent begins here
    bool m_skippedGap = false;       // in front of the last extent
    bool m_stoodStill = false;       // the last extent had neither a gap nor data
};

int Transfer::run(const struct stat *srcStatus) {
    if (m_srcFd < 0 || m_dstFd < 0) {
        return fail(Error::invalid_argument, VEXO_AT(m_source));
    }
    m_sparse = srcStatus != nullptr ? is_sparse(*srcStatus) : is_sparse(m_srcFd);
    // No read is longer than what there is to copy, so a small file does not pay for the largest block; and nothing is
    // cleared, as only bytes that a read has filled are ever written. Blocks that the kernel moves do not touch it, but
    // a copy that could not fall back on reading must not begin.
    m_buffer = HeapBuffer::uninitialised(static_cast<size_t>(std::clamp<int64_t>(m_size, 0, kLargestBlock)));
    if (!m_buffer) {
        return fail(Error::out_of_memory, VEXO_AT(m_source));
    }
    if (m_size < 1) {
        return 0;
    }
    if (copy_extents() < 0) {
        return -1;
    }
    return finish();
}

int Transfer::copy_extents() {
    do {
        if (m_sparse) {
            if (find_extent() < 0 || skip_gap() < 0) {
                return -1;
            }
        } else {
            m_extentEnd = m_size;
        }
        if (copy_extent() < 0 || (m_sparse && find_next_data() < 0)) {
            return -1;
        }
        m_previousExtentEnd = m_extentEnd;
    } while (m_offset < m_size);
    return 0;
}

// The extent that begins at m_dataStart, with the source positioned at its start.
int Transfer::find_extent() {
    const int64_t hole = ::lseek(m_srcFd, m_dataStart, SEEK_HOLE);
    if (hole < 0 && errno != ENXIO) {
        return fail(Error::seek, VEXO_AT(m_source));
    }
    // A start behind the end of the source: what remains counts as one extent, or as the hole that ends the file.
    m_extentEnd = hole < 0 ? m_size : std::min(m_size, hole);
    m_dataStart = std::min(m_size, m_dataStart);
    if (::lseek(m_srcFd, m_dataStart, SEEK_SET) < 0) {
        return fail(Error::seek, VEXO_AT(m_source));
    }
    return 0;
}

// The hole between the previous extent and this one: skipped in the destination and, where it can, punched, for a
// destination that held something there.
int Transfer::skip_gap() {
    const int64_t gap = m_dataStart - m_previousExtentEnd;
    // No file has an extent that ends before it begins, or that begins before the last one ended. An empty one without
    // a gap before it is a leading hole, or a hole that was filled between the two look-ups; twice in a row it is
    // neither, and a broken file system must not keep the copy going round forever.
    const bool standsStill = gap == 0 && m_extentEnd == m_dataStart;
    if (gap < 0 || m_extentEnd < m_dataStart || (standsStill && m_stoodStill)) {
        return fail(Error::invalid_argument, VEXO_AT(m_source));
    }
    m_stoodStill = standsStill;
    m_skippedGap = gap > 0;
    if (gap == 0) {
        return 0;
    }
    const int64_t position = ::lseek(m_dstFd, gap, SEEK_CUR);
    if (position < 0) {
        return fail(Error::seek, VEXO_AT(m_source));
    }
    if (::fallocate(m_dstFd, FALLOC_FL_KEEP_SIZE | FALLOC_FL_PUNCH_HOLE, position - gap, gap) != 0 &&
        errno != EOPNOTSUPP && errno != ENOSYS) {
        return fail(Error::file_operation, VEXO_AT(m_source));
    }
    if (m_callbacks.progress) {
        m_callbacks.progress(gap, m_dataStart);
    }
    m_offset = m_dataStart;
    return 0;
}

int Transfer::copy_extent() {
    for (int64_t remaining = m_extentEnd - m_dataStart; remaining > 0; remaining -= m_lastBytes) {
        if (copy_block(remaining) < 0) {
            return -1;
        }
    }
    return 0;
}

// One block. Leaves the bytes moved in m_lastBytes.
int Transfer::copy_block(int64_t remaining) {
    if (m_callbacks.isCancel && m_callbacks.isCancel() != 0) {
        return fail(Error::cancelled, VEXO_AT(m_source));
    }
    const int64_t wanted = std::min(next_read_size(), remaining);
    int64_t moved = move_in_kernel(wanted);
    if (moved < wanted && read_and_write(wanted - moved, moved) < 0) {
        return -1;
    }
    m_offset += moved;
    if (m_callbacks.progress) {
        m_callbacks.progress(moved, m_offset);
    }
    m_lastBytes = moved;
    return 0;
}

// As much of the block as the kernel moves without showing it to us, which saves a pass over the bytes. Whatever ends
// it early (a pair of files it does not serve, the end of the source, a full disk) is left to the read and the write
// that follow: they meet the same, and they can tell which side it was. Never copy_file_range, which shares extents
// where the volume can: sharing is the caller's choice.
int64_t Transfer::move_in_kernel(int64_t wanted) const {
    int64_t moved = 0;
    while (moved < wanted) {
        const ssize_t sent = ::sendfile(m_dstFd, m_srcFd, nullptr, static_cast<size_t>(wanted - moved));
        if (sent <= 0) {
            break;
        }
        moved += sent;
    }
    return moved;
}

// One read and its write, added to what the kernel has `moved` of the block. A source that ends or fails behind that
// makes the block a short one, as a read of the whole block would have been; the next block meets the reason.
int Transfer::read_and_write(int64_t wanted, int64_t &moved) {
    const ssize_t got = ::read(m_srcFd, m_buffer.data(), static_cast<size_t>(wanted));
    if (got <= 0 && moved > 0) {
        return 0;
    }
    if (got < 0) {
        return read_failed(errno);
    }
    if (got == 0) {
        return fail(Error::read, VEXO_AT(m_source));
    }
    const int written = write_file(m_dstFd, m_buffer.data(), got);
    if (written < 0) {
        return write_failed(errno);
    }
    if (written != got) {
        return fail(Error::short_write, VEXO_AT(m_source));
    }
    moved += written;
    return 0;
}

int64_t Transfer::next_read_size() {
    if (m_callbacks.getReadSize) {
        const int64_t asked = m_callbacks.getReadSize(m_lastBytes, m_offset);
        m_readSize = asked < 1 || asked > kLargestBlock ? kLargestBlock : asked;
    }
    return m_readSize;
}

int Transfer::find_next_data() {
    m_dataStart = ::lseek(m_srcFd, m_offset, SEEK_DATA);
    if (m_dataStart < 0) {
        if (errno != ENXIO) {
            return fail(Error::seek, VEXO_AT(m_source));
        }
        m_dataStart = m_size; // no more data
    }
    return 0;
}

// A source that ends in a hole gives a destination of its full length.
int Transfer::finish() const {
    if (m_sparse && m_skippedGap && ::ftruncate(m_dstFd, m_size) != 0) {
        return fail(Error::file_operation, VEXO_AT(m_source));
    }
    return 0;
}

int Transfer::read_failed(int number) const {
    if (const std::optional<Error> error = find_error(kReadErrors, number)) {
        return fail(*error, VEXO_AT(m_source));
    }
    VEXO_LOG_ERROR(VEXO_AT(m_source), "Unable to readfile, errno=%d(%s)", number, std::strerror(number));
    return fail(Error::other, VEXO_AT(m_source));
}

int Transfer::write_failed(int number) const {
    if (const std::optional<Error> error = find_error(kWriteErrors, number)) {
        return fail(*error, VEXO_AT(m_source));
    }
    VEXO_LOG_ERROR(VEXO_AT(m_source), "Unable to writefile, errno=%d(%s)", number, std::strerror(number));
    return fail(Error::other, VEXO_AT(m_source));
}

} // namespace

int transfer(int srcFd, int dstFd, int64_t size, const TransferCallbacks &callbacks, const char *source,
             const struct stat *srcStatus) {
    return Transfer(srcFd, dstFd, size, callbacks, source).run(srcStatus);
}

} // namespace vexo
