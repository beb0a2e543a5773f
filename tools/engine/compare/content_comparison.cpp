// The bytes of two files. What is a hole in both is not read.
#include "tools/engine/compare/findings.h"

#include "tools/engine/walk/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr size_t kBlock = size_t{256} << 10, kLeastBlock = 4096;
// Of a file that does not tell where its holes are the blocks that it takes tell how much is data. They may come in
// pieces larger than a block.
constexpr int64_t kStatusBlock = 512, kPiece = int64_t{64} << 10;

// A file open for reading, and where its data are.
class Content {
  public:
    Content(const EntryView &entry, const char *which) : m_which(which) {
        constexpr int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
        m_file = entry.readable();
        if (m_file < 0) {
            // A look that leaves no trace is for the owner and for root.
            m_opened = Descriptor(::open(entry.file().c_str(), flags | O_NOATIME));
            if (m_opened.get() < 0 && errno == EPERM) {
                m_opened = Descriptor(::open(entry.file().c_str(), flags));
            }
            m_file = m_opened.get();
        }
        if (m_file < 0) {
            fail();
        }
        const struct stat &status = entry.status().st;
        m_size = status.st_size;
        // A byte more than a short file has: what came meanwhile shows.
        m_block = static_cast<size_t>(std::clamp<off_t>(m_size + 1, kLeastBlock, kBlock));
        if (status.st_size > static_cast<off_t>(kBlock)) {
            (void)::posix_fadvise(m_file, 0, 0, POSIX_FADV_SEQUENTIAL);
        }
        constexpr int64_t block = 512;
        m_end = status.st_blocks * block >= status.st_size ? status.st_size : 0; // no holes
    }
    // The first byte from `from` on that is not in a hole, at most `end`. Without the means to tell, `from`.
    off_t next_data(off_t from, off_t end) {
        if (from >= m_end) {
            const off_t start = ::lseek(m_file, from, SEEK_DATA);
            if (start < 0) {
                m_start = errno == ENXIO ? end : from;
                m_end = end;
            } else {
                m_start = start;
                const off_t hole = ::lseek(m_file, start, SEEK_HOLE);
                m_end = hole < 0 ? end : hole;
            }
        }
        return std::min(std::max(from, m_start), end);
    }
    // Up to `size` bytes; fewer at the end of the file only.
    size_t read(off_t offset, size_t size) {
        if (m_buffer == nullptr) {
            m_buffer = std::make_unique_for_overwrite<char[]>(m_block);
        }
        size_t done = 0;
        while (done < size) {
            const ssize_t got = ::pread(m_file, m_buffer.get() + done, size - done, offset + static_cast<off_t>(done));
            if (got < 0 && errno != EINTR) {
                fail();
            }
            if (got == 0) {
                break;
            }
            done += got > 0 ? static_cast<size_t>(got) : 0;
            if (m_size > 0 && offset + static_cast<off_t>(done) == m_size) {
                break; // where more was asked for: the end
            }
        }
        return done;
    }
    size_t block() const { return m_block; }
    const char *bytes() const { return m_buffer.get(); }

    // In blocks of `grain` bytes, each of which is data as soon as a byte of it is.
    int64_t data_bytes(off_t size, off_t grain) {
        int64_t sum = 0;
        off_t counted = 0; // up to here
        m_end = 0;         // blocks of attributes may have hidden that there are holes
        for (off_t at = next_data(0, size); at < size; at = next_data(m_end, size)) {
            const off_t start = std::max(at / grain * grain, counted);
            counted = std::max(counted, std::min((m_end + grain - 1) / grain * grain, size));
            sum += std::max<off_t>(counted - start, 0);
        }
        return sum;
    }

  private:
    [[noreturn]] void fail() const { throw_errno(fmt::format("the {} cannot be read", m_which)); }

    const char *m_which;
    Descriptor m_opened{-1};
    int m_file = -1; // it, or the entry's
    std::unique_ptr<char[]> m_buffer;
    size_t m_block = kBlock;      // bytes in the buffer
    off_t m_size = 0;             // as the status has it
    off_t m_start = 0, m_end = 0; // of the data that were found last
};

} // namespace

void compare_content(const EntryView &one, const EntryView &other, Findings &findings) {
    findings.attempt("data", [&] {
        Content first(one, "first"), second(other, "second");
        const off_t size = one.status().st.st_size;
        const size_t block = std::min(first.block(), second.block());
        off_t at = 0;
        for (;;) {
            if (findings.stopped()) {
                throw Failure("the comparison was stopped");
            }
            if (at < size) {
                at = std::min(first.next_data(at, size), second.next_data(at, size));
            }
            // Behind the end too: one of them may have grown, or does not tell its size.
            const size_t got = first.read(at, block);
            const size_t there = second.read(at, block);
            if (got != there || std::memcmp(first.bytes(), second.bytes(), got) != 0) {
                const size_t common = std::min(got, there);
                const auto place = std::mismatch(first.bytes(), first.bytes() + common, second.bytes());
                findings.add(LossClass::data,
                             fmt::format("data differ from byte {} on", at + (place.first - first.bytes())));
                return;
            }
            at += static_cast<off_t>(got);
            if (findings.options.progress) {
                findings.options.progress(static_cast<int64_t>(got));
            }
            if (got < block) {
                return;
            }
        }
    });
}

void compare_holes(const EntryView &one, const EntryView &other, Findings &findings) {
    const struct stat &status = one.status().st;
    if (!one.may_have_holes() || other.status().st.st_blocks <= status.st_blocks) {
        return;
    }
    findings.attempt("holes", [&] {
        // A volume of larger blocks has filled nothing for that.
        const off_t grain = std::max<off_t>(other.status().st.st_blksize, 512);
        int64_t first = Content(one, "first").data_bytes(status.st_size, grain);
        int64_t second = Content(other, "second").data_bytes(status.st_size, grain);
        if (first >= status.st_size) {
            first = std::min<int64_t>(most_data(status, one.volume()), first);
        }
        if (second >= status.st_size && other.may_have_holes()) {
            second = std::max<int64_t>(other.status().st.st_blocks * kStatusBlock - kPiece, 0);
        }
        if (second > first) {
            findings.add(LossClass::hole, fmt::format("holes were filled: {} bytes more", second - first));
        }
    });
}

int64_t most_data(const struct stat &file, const VolumeFacts &volume) {
    constexpr uint32_t ramfs = 0x858458f6; // its blocks are the pages that somebody has looked at
    return volume.magic == ramfs ? file.st_size : file.st_blocks * kStatusBlock + kPiece;
}

} // namespace engine
