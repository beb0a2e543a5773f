#include "ea/carry/conversion.h"

#include "ea/carry/job.h"
#include "ea/carry/stream_files.h"
#include "ea/carry/two_entries.h"
#include "ea/ea.h"
#include "ea/files/positioned.h"
#include "ea/files/store_entry.h"
#include "ea/files/store_file.h"
#include "ea/stream/handle.h"
#include "support/big_endian.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/heap.h"
#include "support/report.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo {
namespace {

using adouble::kCountAt;
using adouble::kEntrySize;
using adouble::kFixedSize;
using adouble::kMagic;
constexpr uint32_t kVersion1 = 0x00010000;
constexpr uint32_t kVersion2 = adouble::kVersion;

// What a conversion answers.
constexpr int kOpenFailed = -2;
constexpr int kWriteFailed = -5;
constexpr int kNoSpace = -9;
constexpr int kIconName = -32;
constexpr int kReservedName = -33;

constexpr char kConverterName[] = "EACopyAdoubleV2";

// A fork with this text 16 bytes in was put there by a system that needed one to be there.
constexpr std::string_view kBlankFork = "This resource fork intentionally left blank   ";
constexpr uint64_t kBlankForkOffset = 16;

// Names that a destination with an AppleDouble file beside each file cannot hold. The test is made on the path as it is
// given, so that only a bare name in the working directory is ever refused; callers depend on absolute paths passing.
int check_destination_name(const char *to) {
    constexpr std::string_view kPrefix = "._";
    const std::string_view path = to;
    if (!path.starts_with(kPrefix)) {
        return 0;
    }
    std::string_view base = path;
    if (const size_t slash = path.rfind('/'); slash != std::string_view::npos) {
        base.remove_prefix(slash + 1);
    }
    base.remove_prefix(base.size() < kPrefix.size() ? base.size() : kPrefix.size());
    constexpr std::string_view kIcon = "Icon\r";
    if (base.size() == kIcon.size() && ::strncasecmp(base.data(), kIcon.data(), kIcon.size()) == 0) {
        return kIconName;
    }
    return base.find_first_of("\\/:*?\"><|\r\n") == std::string_view::npos ? 0 : kReservedName;
}

struct Entry {
    uint64_t offset = 0;
    uint64_t length = 0;
};

// An AppleDouble file that is being converted.
struct Source {
    const char *path;
    int fd;
    uint64_t size;
    std::array<uint8_t, kFixedSize> header;
    Entry finderInfo;
    Entry fork;
};

int read_failed(const Source &source) {
    VEXO_LOG_ERROR_IN(VEXO_EA_COPY_HERE, kConverterName, "failed to read %s, reason=%s.\n", source.path,
                      ::strerror(errno));
    return fail(Error::read, VEXO_EA_COPY_HERE);
}

int read_entries(Source &source) {
    const size_t count = big_endian::load(source.header.data() + kCountAt, 2);
    const size_t size = count * kEntrySize;
    if (size > source.size - kFixedSize) {
        errno = 0;
        return read_failed(source);
    }
    HeapBuffer table = HeapBuffer::uninitialised(size);
    if (!table) {
        return fail(Error::out_of_memory_ea, VEXO_EA_COPY_HERE);
    }
    if (!read_at(source.fd, table.data(), size, kFixedSize)) {
        return read_failed(source);
    }
    BigEndianReader reader({table.data(), size});
    for (size_t at = 0; at < count; ++at) {
        const uint32_t id = reader.u32();
        const Entry entry{reader.u32(), reader.u32()};
        if (id == kFinderInfoEntry) {
            source.finderInfo = entry;
        } else if (id == kResourceForkEntry) {
            source.fork = entry;
        }
    }
    return 0;
}

// A fork that the file does not hold is found out before the destination is touched.
int check_fork(Source &source) {
    Entry &fork = source.fork;
    if (fork.length == 0) {
        return 0;
    }
    if (fork.offset > source.size || fork.length > source.size - fork.offset) {
        const uint64_t there = fork.offset > source.size ? 0 : source.size - fork.offset;
        VEXO_LOG_ERROR_IN(VEXO_EA_COPY_HERE, kConverterName, "failed to read %s, cRead=%d, cToRead=%d, reason=%s.\n",
                          source.path, static_cast<int>(there), static_cast<int>(fork.length), ::strerror(errno));
        return fail(Error::read, VEXO_EA_COPY_HERE);
    }
    if (fork.length < kBlankForkOffset + kBlankFork.size()) {
        return 0;
    }
    std::array<char, kBlankFork.size()> text;
    if (!read_at(source.fd, text.data(), text.size(), fork.offset + kBlankForkOffset)) {
        return read_failed(source);
    }
    if (kBlankFork == std::string_view(text.data(), text.size())) {
        fork.length = 0;
    }
    return 0;
}

int read_finder_info(const Source &source, std::array<uint8_t, kFinderInfoSize> &finderInfo) {
    const Entry &entry = source.finderInfo;
    const size_t length = entry.length < finderInfo.size() ? static_cast<size_t>(entry.length) : finderInfo.size();
    if (length > 0 && !read_at(source.fd, finderInfo.data(), length, entry.offset)) {
        return read_failed(source);
    }
    return 0;
}

int write_failed(const char *to) {
    const int number = errno;
    VEXO_LOG_ERROR_IN(VEXO_EA_COPY_HERE, kConverterName, "failed to write to %s, reason=%s.\n", to, ::strerror(number));
    set_error(Error::write, VEXO_EA_COPY_HERE);
    errno = number;
    return number == ENOSPC ? kNoSpace : kWriteFailed;
}

int copy_fork(const Source &source, int destination, const char *to) {
    std::array<uint8_t, 16384> block;
    uint64_t done = 0;
    while (done < source.fork.length) {
        const uint64_t left = source.fork.length - done;
        const size_t size = left < block.size() ? static_cast<size_t>(left) : block.size();
        if (!read_at(source.fd, block.data(), size, source.fork.offset + done)) {
            VEXO_LOG_ERROR_IN(VEXO_EA_COPY_HERE, kConverterName, "failed to read, reason=%s.\n", ::strerror(errno));
            return fail(Error::read, VEXO_EA_COPY_HERE);
        }
        if (!write_at(destination, block.data(), size, kForkOffset + done)) {
            const int number = errno;
            VEXO_LOG_ERROR_IN(VEXO_EA_COPY_HERE, kConverterName, "failed to write %s, reason=%s.\n", to,
                              ::strerror(number));
            set_error(Error::write, VEXO_EA_COPY_HERE);
            errno = number;
            return number == ENOSPC ? kNoSpace : kWriteFailed;
        }
        done += size;
    }
    return 0;
}

// Version 2, the one there is: everything but Finder Info and fork is left out.
int convert_version_2(Source &source, const char *to) {
    std::array<uint8_t, kFinderInfoSize> finderInfo{};
    if (read_entries(source) < 0 || check_fork(source) < 0 || read_finder_info(source, finderInfo) < 0) {
        return -1;
    }
    std::array<uint8_t, kForkOffset> head;
    BigEndianWriter writer(head);
    writer.bytes(source.header.data(), kCountAt);
    writer.u16(2);
    writer.u32(kFinderInfoEntry);
    writer.u32(kFinderInfoOffset);
    writer.u32(kFinderInfoSize);
    writer.u32(kResourceForkEntry);
    writer.u32(kForkOffset);
    writer.u32(static_cast<uint32_t>(source.fork.length));
    writer.bytes(finderInfo.data(), finderInfo.size());

    const Fd destination = open_store_file(to, O_WRONLY | O_CREAT);
    if (!destination) {
        VEXO_LOG_ERROR_IN(VEXO_EA_COPY_HERE, kConverterName, "failed to open %s, reason=%s.\n", to, ::strerror(errno));
        set_error(Error::open, VEXO_EA_COPY_HERE);
        const KeepErrno keep;
        (void)unlink_store_file(to);
        return kOpenFailed;
    }
    if (!write_at(destination.get(), head.data(), head.size(), 0)) {
        return write_failed(to);
    }
    const int copied = copy_fork(source, destination.get(), to);
    if (copied < 0) {
        return copied;
    }
    // What stood here before may have been longer.
    const off_t end = static_cast<off_t>(kForkOffset + source.fork.length);
    return ::ftruncate(destination.get(), end) == 0 ? 0 : write_failed(to);
}

int convert_content(const char *from, const char *to) {
    struct stat status;
    const Fd fd = open_store_file(from, O_RDONLY);
    if (!fd || ::fstat(fd.get(), &status) != 0) {
        if (!fd && errno == ENOENT) {
            return 0;
        }
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "failed to open %s, reason=%s.\n", from, ::strerror(errno));
        set_error(Error::open, VEXO_EA_COPY_HERE);
        return kOpenFailed;
    }
    if (status.st_size == 0) {
        return 0;
    }
    struct stat there;
    if (look_in_store(to, there) == 0 && is_one_file(status, there)) {
        return kOneFile;
    }
    Source source{from, fd.get(), static_cast<uint64_t>(status.st_size), {}, {}, {}};
    if (!read_at(fd.get(), source.header.data(), kFixedSize, 0)) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "failed to read %s, reason=%s.\n", from, ::strerror(errno));
        return fail(Error::read, VEXO_EA_COPY_HERE);
    }
    BigEndianReader header(source.header);
    const uint32_t magic = header.u32();
    const uint32_t version = header.u32();
    if (version == kVersion1) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Apple double v1 doens't support now");
        return fail(Error::read, VEXO_EA_COPY_HERE);
    }
    if (magic != kMagic || version != kVersion2) {
        return fail(Error::read, VEXO_EA_COPY_HERE);
    }
    return convert_version_2(source, to);
}

// Takes the values out of the destination that are longer than those to come in their place. 0 or -1.
int make_way(int from, int to) {
    const StreamHandle source(from, F_RDLCK);
    const StreamHandle destination(to, F_WRLCK);
    if (!source || !destination) {
        return -1;
    }
    for (int at = 0; at < source->header.attrCount; ++at) {
        const VEXOEASRecord &record = source->records[at];
        if (remove_longer(destination.get(), record.name, record.length) < 0) {
            return -1;
        }
    }
    return 0;
}

} // namespace

int attribute_count(int fd) {
    constexpr size_t kMostEntries = 13;
    std::array<uint8_t, kFixedSize + kMostEntries * kEntrySize> bytes{};
    const ssize_t size = ::pread(fd, bytes.data(), bytes.size(), 0);
    if (size < 0) {
        return fail(Error::read, VEXO_EA_COPY_HERE);
    }
    bool hasFinderInfo = size == 0; // nothing is written yet
    const uint64_t count = big_endian::load(bytes.data() + kCountAt, 2);
    for (size_t at = 0; at < count && at < kMostEntries; ++at) {
        hasFinderInfo =
            hasFinderInfo || big_endian::load(bytes.data() + kFixedSize + at * kEntrySize, 4) == kFinderInfoEntry;
    }
    return hasFinderInfo ? EASGetAttrCount(fd) : 0;
}

int write_attributes(int from, int to) {
    struct stat one;
    struct stat other;
    if (::fstat(from, &one) == 0 && ::fstat(to, &other) == 0 && is_one_file(one, other)) {
        return 0; // under two names: they are all there
    }
    return make_way(from, to) == 0 && EASWriteToFd(from, to) == 0 ? 0 : -1;
}

int convert_or_log(const char *from, const char *to, ConvertMode mode) {
    const int converted = convert_apple_double(from, to, mode);
    if (converted < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to copy %s to %s, reason = %d.\n", from, to, converted);
    }
    return converted;
}

int convert_apple_double(const char *from, const char *to, ConvertMode mode) {
    if (mode == ConvertMode::checked || mode == ConvertMode::checked_as_is) {
        const int refused = check_destination_name(to);
        if (refused < 0) {
            return refused;
        }
    }
    if (mode == ConvertMode::as_is || mode == ConvertMode::checked_as_is) {
        const int copied = copy_store_file(from, to);
        return copied == kNothingToCopy ? 0 : copied;
    }
    return convert_content(from, to);
}

} // namespace vexo
