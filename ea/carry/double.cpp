// AppleDouble files: converting one into the form of two entries, and the routines from and to volumes that keep what
// belongs to a file in one beside it.
#include "ea/carry/job.h"

#include "ea/ea.h"
#include "ea/stream/handle.h"
#include "support/big_endian.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/heap.h"
#include "support/path_buffer.h"
#include "support/report.h"
#include "transfer/fat_name.h"

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

// The layout that is written: header, two entry descriptors, Finder Info, resource fork.
//
//      0  magic, version, filler, entry count
//     26  id 9, offset 50, length 32
//     38  id 2, offset 82, length of the fork
//     50  Finder Info
//     82  the fork
constexpr size_t kHeaderSize = 26;
constexpr size_t kCountOffset = 24;
constexpr size_t kDescriptorSize = 12;
constexpr size_t kFinderInfoOffset = kHeaderSize + 2 * kDescriptorSize;
constexpr size_t kForkOffset = kFinderInfoOffset + kFinderInfoSize;
static_assert(kFinderInfoOffset == 50 && kForkOffset == 82);

constexpr uint32_t kMagic = 0x00051607;
constexpr uint32_t kVersion1 = 0x00010000;
constexpr uint32_t kVersion2 = 0x00020000;

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
    std::array<uint8_t, kHeaderSize> header;
    Entry finderInfo;
    Entry fork;
};

int read_failed(const Source &source) {
    VEXO_LOG_ERROR_IN(VEXO_EA_COPY_HERE, kConverterName, "failed to read %s, reason=%s.\n", source.path,
                      ::strerror(errno));
    return fail(Error::read, VEXO_EA_COPY_HERE);
}

int read_entries(Source &source) {
    const size_t count = big_endian::load(source.header.data() + kCountOffset, 2);
    const size_t size = count * kDescriptorSize;
    if (size > source.size - kHeaderSize) {
        errno = 0;
        return read_failed(source);
    }
    HeapBuffer table = HeapBuffer::uninitialised(size);
    if (!table) {
        return fail(Error::out_of_memory_ea, VEXO_EA_COPY_HERE);
    }
    if (!read_at(source.fd, table.data(), size, kHeaderSize)) {
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
    writer.bytes(source.header.data(), kCountOffset);
    writer.u16(2);
    writer.u32(kFinderInfoEntry);
    writer.u32(kFinderInfoOffset);
    writer.u32(kFinderInfoSize);
    writer.u32(kResourceForkEntry);
    writer.u32(kForkOffset);
    writer.u32(static_cast<uint32_t>(source.fork.length));
    writer.bytes(finderInfo.data(), finderInfo.size());

    const Fd destination(::open(to, O_WRONLY | O_CREAT | O_CLOEXEC, 0777));
    if (!destination) {
        VEXO_LOG_ERROR_IN(VEXO_EA_COPY_HERE, kConverterName, "failed to open %s, reason=%s.\n", to, ::strerror(errno));
        set_error(Error::open, VEXO_EA_COPY_HERE);
        const KeepErrno keep;
        ::unlink(to);
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
    if (::stat(from, &status) != 0 && errno == ENOENT) {
        return 0;
    }
    const Fd fd(::open(from, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
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
    Source source{from, fd.get(), static_cast<uint64_t>(status.st_size), {}, {}, {}};
    if (!read_at(fd.get(), source.header.data(), kHeaderSize, 0)) {
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

int double_path(const char *path, PathBuffer &out) {
    return VEXOEAADPath(path, out.fill(), PathBuffer::kUsable);
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

// The attributes in the AppleDouble file `from`, as the attribute stream of the destination. One without any makes
// none.
int move_attributes_to_stream(const char *from, const char *dst) {
    const Fd source(::open(from, O_RDONLY | O_CLOEXEC));
    if (!source) {
        return errno == ENOENT ? 0 : fail(Error::open, VEXO_EA_COPY_HERE);
    }
    const int count = EASGetAttrCount(source.get());
    if (count <= 0) {
        return count;
    }
    const Fd stream(VEXOEAOpen(kCurrentLayout, dst, kEaStream, O_RDWR | O_CREAT, kStreamCompanion));
    if (!stream) {
        return fail(Error::open, VEXO_EA_COPY_HERE);
    }
    return write_attributes(source.get(), stream.get());
}

// The attribute stream of the source, into the AppleDouble file `to`.
int append_stream(const char *src, const char *to) {
    const Fd stream(VEXOEAOpen(kCurrentLayout, src, kEaStream, O_RDONLY, kStreamCompanion));
    if (!stream) {
        return errno == ENOENT ? 0 : fail(Error::open, VEXO_EA_COPY_HERE);
    }
    const int count = EASGetAttrCount(stream.get());
    if (count <= 0) {
        return count;
    }
    Fd destination(::open(to, O_RDWR | O_CLOEXEC));
    if (!destination && errno == ENOENT) {
        destination.reset(::open(to, O_RDWR | O_CREAT | O_CLOEXEC, 0777));
    }
    if (!destination) {
        return fail(Error::open, VEXO_EA_COPY_HERE);
    }
    return write_attributes(stream.get(), destination.get());
}

bool exists(const char *path) {
    return ::access(path, F_OK) == 0;
}

// The place of the destination's AppleDouble file, on a volume that may reserve characters.
int destination_double_path(const char *dst, PathBuffer &out) {
    PathBuffer plain;
    if (VEXOEAADPath(dst, plain.fill(), PathBuffer::kSize) < 0) {
        if (last_error() != Error::name_too_long) {
            return -1;
        }
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "filename too long: [%s].", dst);
        return kNameTooLong;
    }
    return replace_fat_reserved(plain.c_str(), out.fill(), PathBuffer::kSize);
}

int convert_resource_to_double(const EaCopyJob &job, const char *to) {
    PathBuffer from;
    if (VEXOEAPath(kCurrentLayout, job.src, kResourceStream, from.fill(), PathBuffer::kUsable, kStreamCompanion) < 0) {
        return -1;
    }
    const int converted = convert_apple_double(from.c_str(), to, ConvertMode::checked);
    if (converted < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to copy %s to %s, reason = %d.", from.c_str(), to, converted);
        return converted;
    }
    return 0;
}

} // namespace

bool read_at(int fd, void *to, size_t size, uint64_t offset) {
    auto *at = static_cast<uint8_t *>(to);
    while (size > 0) {
        errno = 0;
        const ssize_t got = ::pread(fd, at, size, static_cast<off_t>(offset));
        if (got <= 0) {
            return false;
        }
        at += got;
        size -= static_cast<size_t>(got);
        offset += static_cast<uint64_t>(got);
    }
    return true;
}

bool write_at(int fd, const void *from, size_t size, uint64_t offset) {
    const auto *at = static_cast<const uint8_t *>(from);
    while (size > 0) {
        const ssize_t written = ::pwrite(fd, at, size, static_cast<off_t>(offset));
        if (written <= 0) {
            errno = written == 0 ? EIO : errno;
            return false;
        }
        at += written;
        size -= static_cast<size_t>(written);
        offset += static_cast<uint64_t>(written);
    }
    return true;
}

int write_attributes(int from, int to) {
    return make_way(from, to) == 0 && EASWriteToFd(from, to) == 0 ? 0 : -1;
}

int convert_apple_double(const char *from, const char *to, ConvertMode mode) {
    if (mode == ConvertMode::checked || mode == ConvertMode::checked_as_is) {
        const int refused = check_destination_name(to);
        if (refused < 0) {
            return refused;
        }
    }
    if (mode == ConvertMode::as_is || mode == ConvertMode::checked_as_is) {
        return copy_store_file(from, to) < 0 ? -1 : 0;
    }
    return convert_content(from, to);
}

int copy_adfs_to_adfs(const EaCopyJob &job) {
    PathBuffer from;
    PathBuffer to;
    if (double_path(job.src, from) < 0 || double_path(job.dst, to) < 0) {
        if (last_error() != Error::name_too_long) {
            return -1;
        }
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "filename too long: [%s].", job.src);
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "filename too long: [%s].", job.dst);
        return kNameTooLong;
    }
    const int copied = copy_store_file(from.c_str(), to.c_str());
    if (copied < 0) {
        VEXO_LOG_ERROR_IN(VEXO_EA_COPY_HERE, "EACopyADFStoADFS", "Failed to cp -f %s.\n", from.c_str());
        return -1;
    }
    if (job.move && copied == 0 && ::unlink(from.c_str()) != 0 && errno != ENOENT) {
        set_error(Error::file_operation, VEXO_EA_COPY_HERE);
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed to remove [%s]. %m", from.c_str());
        return -1;
    }
    return 0;
}

int copy_adfs_to_ea_directory(const EaCopyJob &job) {
    PathBuffer from;
    if (double_path(job.src, from) < 0) {
        if (last_error() == Error::name_too_long) {
            VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "filename too long: [%s].", job.src);
            return kNameTooLong;
        }
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Fail to generate path.[0x%04X %s:%d]", VLIBCErrGet(), VLIBCErrorGetFile(),
                       static_cast<int>(VLIBCErrorGetLine()));
        return -1;
    }
    if (!exists(from.c_str())) { // most files have none: no "@eaDir" is made for them
        return 0;
    }
    PathBuffer to;
    if (prepare_ea_directory(kSharedDirectory, job.dst, to) < 0) {
        return -1;
    }
    if (VEXOEAPath(kCurrentLayout, job.dst, kResourceStream, to.fill(), PathBuffer::kUsable, kStreamCompanion) < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Fail to generate path.[0x%04X %s:%d]", VLIBCErrGet(), VLIBCErrorGetFile(),
                       static_cast<int>(VLIBCErrorGetLine()));
        return -1;
    }
    const int converted = convert_apple_double(from.c_str(), to.c_str(), ConvertMode::plain);
    if (converted < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to copy %s to %s, reason = %d.\n", from.c_str(), to.c_str(),
                       converted);
        return converted;
    }
    if (move_attributes_to_stream(from.c_str(), job.dst) < 0) {
        return -1;
    }
    if (job.move && ::unlink(from.c_str()) != 0 && errno != ENOENT) {
        return fail(Error::file_operation, VEXO_EA_COPY_HERE);
    }
    return 0;
}

int copy_adfs_to_file_ea(const EaCopyJob &job) {
    const int result = copy_adfs_to_ea_directory(job);
    return result != 0 ? result : sync_destination(job);
}

int copy_ea_directory_to_adfs(const EaCopyJob &job) {
    PathBuffer to;
    const int named = destination_double_path(job.dst, to);
    if (named < 0) {
        return named;
    }
    const int resource = convert_resource_to_double(job, to.c_str());
    if (resource < 0) {
        return resource;
    }
    if (append_stream(job.src, to.c_str()) < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to copy %s to %s, reason = %d.", job.src, to.c_str(), -1);
        return -1;
    }
    // Only now: the attributes were put in front of the fork, and had that failed half way, the source's would be the
    // only one.
    return job.move ? unlink_source_stream(job, kResourceStream, kStreamCompanion) : 0;
}

} // namespace vexo
