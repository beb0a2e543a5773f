#include "transfer/transfer.h"

#include "support/errno_table.h"
#include "support/guards.h"
#include "support/heap.h"
#include "support/own_volume.h"
#include "support/report.h"
#include "transfer/write_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace vexo {
namespace {

constexpr int64_t kLargestBlock = int64_t{8} * 1024 * 1024;
// Blocks up to this size are read and written: the kernel would not move them in less time than it takes to find out
// whether it may.
constexpr int64_t kSmallBlock = int64_t{64} * 1024;
// So far every volume holds a file, and beyond it the kernel refuses a move with a number that says nothing of the
// side.
constexpr int64_t kFarthestMove = int64_t{1} << 41;

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

// Nothing was moved, and nothing will be: the kernel does not do this for the two files. 0 is the same for one block.
bool is_refusal(int number) {
    return number == EINVAL || number == ENOSYS || number == EOPNOTSUPP;
}

// Whether the kernel may move blocks without showing them to us. Only between two regular files on volumes of its own:
//   * a program or a server behind a volume tells a failure once, also that of an earlier block, and what the kernel
//   has
//     moved behind it is lost to us,
//   * a pipe or socket would get the source's pages themselves, with what is written there later,
//   * ranges of one file may overlap,
//   * what is appended goes elsewhere than it was read for.
bool may_move_in_kernel(int srcFd, const struct stat &src, int dstFd) {
    struct stat dst = {};
    if (!S_ISREG(src.st_mode) || ::fstat(dstFd, &dst) != 0 || !S_ISREG(dst.st_mode) ||
        (src.st_dev == dst.st_dev && src.st_ino == dst.st_ino)) {
        return false;
    }
    const int flags = ::fcntl(dstFd, F_GETFL);
    return flags >= 0 && (flags & O_APPEND) == 0 && is_on_own_volume(srcFd) && is_on_own_volume(dstFd);
}

class Transfer {
  public:
    Transfer(int srcFd, int dstFd, int64_t size, const TransferCallbacks &callbacks, const char *source,
             const struct stat *seen)
        : m_srcFd(srcFd), m_dstFd(dstFd), m_size(size), m_callbacks(callbacks), m_source(source), m_seen(seen) {}

    int run();

  private:
    int copy_extents();
    int find_extent();
    int skip_gap();
    int copy_extent();
    int copy_block(int64_t remaining);
    bool asks_kernel(int64_t wanted);
    int move_in_kernel(int64_t wanted, int64_t &moved);
    int move_failed(int64_t remaining, int number);
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
    const char *m_source;      // the front door's name
    const struct stat *m_seen; // of the source, by its descriptor; null: nobody has looked

    struct stat m_srcStatus = {}; // as it was when the copy began; all zero where it could not be had
    bool m_sparse = false;
    bool m_knowsKernelMoves = false; // whether the next is decided
    bool m_kernelMoves = false;
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

int Transfer::run() {
    if (m_srcFd < 0 || m_dstFd < 0) {
        return fail(Error::invalid_argument, VEXO_AT(m_source));
    }
    if (m_seen != nullptr) {
        m_srcStatus = *m_seen;
    } else if (::fstat(m_srcFd, &m_srcStatus) != 0) {
        m_srcStatus = {};
    }
    m_sparse = is_sparse(m_srcStatus);
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
    int64_t moved = 0;
    if (asks_kernel(wanted) && move_in_kernel(wanted, moved) < 0) {
        return -1;
    }
    if (moved == 0 && read_and_write(wanted, moved) < 0) {
        return -1;
    }
    m_offset += moved;
    if (m_callbacks.progress) {
        m_callbacks.progress(moved, m_offset);
    }
    m_lastBytes = moved;
    return 0;
}

bool Transfer::asks_kernel(int64_t wanted) {
    if (wanted <= kSmallBlock || m_offset + wanted > kFarthestMove) {
        return false;
    }
    if (!m_knowsKernelMoves) {
        m_knowsKernelMoves = true;
        m_kernelMoves = may_move_in_kernel(m_srcFd, m_srcStatus, m_dstFd);
    }
    return m_kernelMoves;
}

// The block, moved by the kernel without showing it to us, which saves a pass over the bytes. Nothing moved: it is to
// be read and written. Less than the block: the source ended, and the next block meets that. Never copy_file_range,
// which shares extents where the volume can: sharing is the caller's choice.
int Transfer::move_in_kernel(int64_t wanted, int64_t &moved) {
    // A write to such a file is never interrupted, but sendfile is, wherever a caller has a handler without SA_RESTART:
    // a timer or a child that ends would fail the copy.
    const SignalsHeld whole;
    while (moved < wanted) {
        const ssize_t sent = ::sendfile(m_dstFd, m_srcFd, nullptr, static_cast<size_t>(wanted - moved));
        if (sent < 0) {
            const int number = errno;
            m_kernelMoves = false;
            return moved == 0 && is_refusal(number) ? 0 : move_failed(wanted - moved, number);
        }
        if (sent == 0) {
            break;
        }
        moved += sent;
    }
    return 0;
}

// A failure is told once, so nothing is written again. Which side it was is told by reading what could not be moved.
int Transfer::move_failed(int64_t remaining, int number) {
    return ::read(m_srcFd, m_buffer.data(), static_cast<size_t>(remaining)) < 0 ? read_failed(errno)
                                                                                : write_failed(number);
}

int Transfer::read_and_write(int64_t wanted, int64_t &moved) {
    const ssize_t got = ::read(m_srcFd, m_buffer.data(), static_cast<size_t>(wanted));
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
    moved = written;
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
             const struct stat *seen) {
    return Transfer(srcFd, dstFd, size, callbacks, source, seen).run();
}

} // namespace vexo
