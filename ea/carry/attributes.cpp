// Between streams and the attributes of a file: the routines from and to volumes that keep Apple's metadata in the
// file's own attributes, and the attributes that travel as they are.
#include "ea/carry/job.h"

#include "ea/files/xattr_list.h"
#include "ea/double/resource_fork.h"
#include "ea/ea.h"
#include "ea/stream/handle.h"
#include "support/big_endian.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/heap.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo {
namespace {

constexpr char kFinderInfoName[] = "com.apple.FinderInfo";
constexpr char kResourceForkName[] = "com.apple.ResourceFork";

constexpr uint32_t kMagic = 0x00051607;
constexpr uint32_t kVersion2 = 0x00020000;
constexpr size_t kHeaderSize = 26;
constexpr size_t kDescriptorSize = 12;
constexpr uint32_t kFinderInfoOffset = 50;
constexpr uint32_t kForkOffset = 82;

class NameList {
  public:
    NameList() : m_list(VLIBCSzListAlloc(16)) {}
    NameList(const NameList &) = delete;
    NameList &operator=(const NameList &) = delete;
    ~NameList() {
        if (m_list != nullptr) {
            VLIBCSzListFree(m_list);
        }
    }
    explicit operator bool() const { return m_list != nullptr; }
    VLIBCSzList **slot() { return &m_list; }
    int count() const { return m_list->count; }
    const char *at(int index) const { return VLIBCSzListGet(m_list, index); }

  private:
    VLIBCSzList *m_list;
};

// A fork is a file of its own on some volumes, and always goes by path.
int get_attribute(const FileRef &file, const char *name, void *value, size_t size) {
    return file.is_open() && !is_resource_fork(name) ? static_cast<int>(file.get_attribute(name, value, size))
                                                     : VEXOEAXattrGet(file.path(), name, value, static_cast<int>(size));
}

// The value of an attribute, read whole. `value` grows as needed and is used again. The size, or -1 with errno.
//
// Most values are short and arrive with the first call; a longer one, and a fork, whose size is that of a file, are
// asked for their size first.
int read_attribute(const FileRef &file, const char *name, HeapBuffer &value) {
    constexpr size_t kShortValue = 1024;
    if (std::string_view(name) != kResourceForkName) {
        if (!value) {
            value = HeapBuffer::uninitialised(kShortValue);
        }
        const int got = value && value.size() > 0 ? get_attribute(file, name, value.data(), value.size()) : -1;
        if (got >= 0) {
            return got;
        }
        if (value && errno != ERANGE) {
            return -1;
        }
    }
    const int size = get_attribute(file, name, nullptr, 0);
    if (size < 0) {
        return -1;
    }
    if ((!value || value.size() < static_cast<size_t>(size)) && !value.resize(static_cast<size_t>(size))) {
        return fail(Error::out_of_memory_ea, VEXO_EA_COPY_HERE);
    }
    // A buffer of size 0 would ask for the size once more.
    return size == 0 ? 0 : get_attribute(file, name, value.data(), static_cast<size_t>(size));
}

int set_attribute(const FileRef &file, const char *name, const void *value, int size) {
    const int result = file.is_open() && !is_resource_fork(name)
                           ? file.set_attribute(name, value, static_cast<size_t>(size), 0)
                           : VEXOEAXattrSet(file.path(), name, value, size, 0);
    return result < 0 ? fail(Error::write, VEXO_EA_COPY_HERE) : 0;
}

// ---- Streams to attributes ----

// What became of an entry of the source's stream. One too large for an attribute is skipped by design.
enum class Carried { yes, skipped, failed };

Carried carry_entry(const EaCopyJob &job, const VEXOEAS &stream, const VEXOEASRecord &record, uint64_t fileSize,
                    HeapBuffer &value) {
    if (record.length > kLargestAttribute) {
        errno = E2BIG;
        set_error(Error::out_of_memory_ea, VEXO_EA_COPY_HERE);
        VEXO_LOG_DEBUG(VEXO_EA_COPY_HERE, "%u exceed xattr maiximal size (%u), ignore copy ea %s [%s]", record.length,
                       kLargestAttribute, record.name, job.src);
        return Carried::skipped;
    }
    if (record.offset > fileSize || record.length > fileSize - record.offset) {
        errno = EIO;
        set_error(Error::read, VEXO_EA_COPY_HERE);
        return Carried::failed;
    }
    if (value.size() < record.length && !value.resize(record.length)) {
        set_error(Error::out_of_memory_ea, VEXO_EA_COPY_HERE);
        return Carried::failed;
    }
    if (!read_at(stream.fd, value.data(), record.length, record.offset)) {
        set_error(Error::read, VEXO_EA_COPY_HERE);
        return Carried::failed;
    }
    return set_attribute(job.dst, record.name, value.data(), static_cast<int>(record.length)) < 0 ? Carried::failed
                                                                                                  : Carried::yes;
}

// What became of the entries of an attribute stream.
struct Tally {
    int result = 0;         // -1: the stream could not be read, or an entry failed
    bool everything = true; // nothing stayed behind
    int number = 0;         // errno of the first failure
};

Tally carry_entries(const EaCopyJob &job, int fd) {
    constexpr size_t kFirstSize = 1024;
    Tally tally;
    struct stat status;
    const StreamHandle stream(fd, F_RDLCK);
    HeapBuffer value = HeapBuffer::uninitialised(kFirstSize);
    if (!stream || !value || ::fstat(fd, &status) != 0) {
        if (stream && !value) {
            set_error(Error::out_of_memory_ea, VEXO_EA_COPY_HERE);
        }
        return {-1, false, errno};
    }
    for (int at = 0; at < stream.get()->header.attrCount; ++at) {
        const Carried carried =
            carry_entry(job, *stream.get(), stream.get()->records[at], static_cast<uint64_t>(status.st_size), value);
        if (carried == Carried::yes) {
            continue;
        }
        tally.everything = false;
        if (carried == Carried::failed && tally.result == 0) {
            tally.result = -1;
            tally.number = errno;
        }
    }
    return tally;
}

Tally carry_attribute_stream(const EaCopyJob &job, int companion) {
    const Fd fd(VEXOEAOpen(kCurrentLayout, job.src, kEaStream, O_RDONLY, companion));
    if (!fd) {
        if (errno == ENOENT) {
            return {};
        }
        const KeepErrno keep;
        set_error(Error::open, VEXO_EA_COPY_HERE);
        return {-1, false, errno};
    }
    Tally tally = carry_entries(job, fd.get());
    if (tally.result == 0 && tally.everything && job.move && companion == kStreamCompanion &&
        unlink_source_stream(job, kEaStream, companion) < 0) {
        tally.result = -1;
        tally.number = errno;
    }
    return tally;
}

// Where the two entries of a resource file lie.
struct ResourceEntries {
    uint32_t finderInfoOffset = 0;
    uint32_t forkOffset = 0;
    uint32_t forkLength = 0;
};

std::optional<ResourceEntries> read_resource_entries(int fd) {
    constexpr size_t kMostEntries = 13;
    std::array<uint8_t, kHeaderSize + kMostEntries * kDescriptorSize> bytes;
    const auto refuse = [](Error error) {
        set_error(error, VEXO_EA_COPY_HERE);
        return std::nullopt;
    };
    if (!read_at(fd, bytes.data(), kHeaderSize, 0)) {
        return refuse(Error::read);
    }
    BigEndianReader reader(bytes);
    reader.skip(4);
    const uint32_t version = reader.u32();
    reader.seek(kHeaderSize - 2);
    const uint16_t count = reader.u16();
    if (version != kVersion2 || (count != 2 && count != kMostEntries)) {
        return refuse(Error::read);
    }
    if (!read_at(fd, bytes.data() + kHeaderSize, count * kDescriptorSize, kHeaderSize)) {
        return refuse(Error::read);
    }
    ResourceEntries entries;
    for (uint16_t at = 0; at < count; ++at) {
        const uint32_t id = reader.u32();
        const uint32_t offset = reader.u32();
        const uint32_t length = reader.u32();
        if (id == kResourceForkEntry) {
            entries.forkOffset = offset;
            entries.forkLength = length;
        } else if (id == kFinderInfoEntry) {
            entries.finderInfoOffset = offset;
        }
    }
    if (entries.forkOffset == 0 || entries.finderInfoOffset == 0) {
        return refuse(Error::file_operation);
    }
    return entries;
}

int carry_fork(const EaCopyJob &job, int fd, const ResourceEntries &entries) {
    if (entries.forkLength == 0) {
        return 0;
    }
    struct stat status;
    const bool there = ::fstat(fd, &status) == 0 && static_cast<uint64_t>(status.st_size) >= entries.forkOffset &&
                       static_cast<uint64_t>(status.st_size) - entries.forkOffset >= entries.forkLength &&
                       entries.forkLength <= static_cast<uint32_t>(std::numeric_limits<int>::max());
    if (!there) {
        return fail(Error::read, VEXO_EA_COPY_HERE);
    }
    HeapBuffer fork = HeapBuffer::uninitialised(entries.forkLength);
    if (!fork) {
        return fail(Error::out_of_memory_ea, VEXO_EA_COPY_HERE);
    }
    if (!read_at(fd, fork.data(), fork.size(), entries.forkOffset)) {
        return fail(Error::read, VEXO_EA_COPY_HERE);
    }
    return set_attribute(job.dst, kResourceForkName, fork.data(), static_cast<int>(fork.size()));
}

int carry_resource_entries(const EaCopyJob &job, int fd) {
    const std::optional<ResourceEntries> entries = read_resource_entries(fd);
    if (!entries || carry_fork(job, fd, *entries) < 0) {
        return -1;
    }
    std::array<uint8_t, kFinderInfoSize> finderInfo;
    if (!read_at(fd, finderInfo.data(), finderInfo.size(), entries->finderInfoOffset)) {
        return fail(Error::read, VEXO_EA_COPY_HERE);
    }
    return set_attribute(job.dst, kFinderInfoName, finderInfo.data(), static_cast<int>(finderInfo.size()));
}

// `everything`: the attributes have all arrived, so that on a move the file that held them (the same one beside an
// AppleDouble source) may go.
int carry_resource_stream(const EaCopyJob &job, int companion, bool everything) {
    const Fd fd(VEXOEAOpen(kCurrentLayout, job.src, kResourceStream, O_RDONLY, companion));
    if (!fd) {
        return errno == ENOENT ? 0 : fail(Error::open, VEXO_EA_COPY_HERE);
    }
    if (carry_resource_entries(job, fd.get()) < 0) {
        return -1;
    }
    const bool holdsWhatStayed = companion != kStreamCompanion && !everything;
    return job.move && !holdsWhatStayed ? unlink_source_stream(job, kResourceStream, companion) : 0;
}

int carry_streams(const EaCopyJob &job, int companion) {
    const Tally attributes = carry_attribute_stream(job, companion);
    if (carry_resource_stream(job, companion, attributes.everything) < 0) {
        return -1;
    }
    if (attributes.result < 0) {
        errno = attributes.number;
    }
    return attributes.result;
}

// ---- Attributes to streams ----

// What a source's attributes become at the destination.
struct Destination {
    const EaCopyJob &job;
    int companion;

    Fd open(const char *stream, int flags) const {
        return Fd(VEXOEAOpen(kCurrentLayout, job.dst, stream, flags, companion));
    }
};

// Absent forks look different on each kind of file.
bool says_no_fork(int number) {
    return number == ENODATA || number == ENOENT || number == ENOTDIR || number == EOPNOTSUPP;
}

int get_attribute_or_log(const EaCopyJob &job, const char *name, HeapBuffer &value) {
    const int size = read_attribute(job.src, name, value);
    if (size < 0) {
        const KeepErrno keep;
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Fail to get EA(%s, %s). %m", job.src, name);
    }
    return size;
}

// The fork's size, 0 when there is none; -1, reported.
int get_fork(const EaCopyJob &job, HeapBuffer &fork) {
    struct stat status;
    if (::stat(job.src, &status) == 0 && S_ISDIR(status.st_mode)) {
        return 0;
    }
    const int size = VEXOEAXattrGet(job.src, kResourceForkName, nullptr, 0);
    if (size < 0 && says_no_fork(errno)) {
        return 0;
    }
    return get_attribute_or_log(job, kResourceForkName, fork);
}

int write_resource_file(const Destination &destination, const std::array<uint8_t, kFinderInfoSize> &finderInfo,
                        const HeapBuffer &fork, int forkSize) {
    std::array<uint8_t, kForkOffset> head{};
    BigEndianWriter writer(head);
    writer.u32(kMagic);
    writer.u32(kVersion2);
    writer.bytes("VEXOWARE        ", 16);
    writer.u16(2);
    writer.u32(kFinderInfoEntry);
    writer.u32(kFinderInfoOffset);
    writer.u32(kFinderInfoSize);
    writer.u32(kResourceForkEntry);
    writer.u32(kForkOffset);
    writer.u32(static_cast<uint32_t>(forkSize));

    const Fd file = destination.open(kResourceStream, O_RDWR | O_CREAT | O_TRUNC);
    if (!file) {
        const KeepErrno keep;
        set_error(Error::open, VEXO_EA_COPY_HERE);
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Fail to open vexoresource(%s). %m", destination.job.dst);
        return -1;
    }
    if (!write_at(file.get(), head.data(), head.size(), 0) ||
        !write_at(file.get(), finderInfo.data(), finderInfo.size(), kFinderInfoOffset) ||
        !write_at(file.get(), fork.data(), static_cast<size_t>(forkSize), kForkOffset)) {
        return fail(Error::write, VEXO_EA_COPY_HERE);
    }
    return 0;
}

bool is_apple_metadata(std::string_view name) {
    return name == kFinderInfoName || name == kResourceForkName;
}

// Finder Info and fork, where the source has either.
int carry_apple_metadata(const Destination &destination, const NameList &names) {
    const EaCopyJob &job = destination.job;
    HeapBuffer value;
    std::array<uint8_t, kFinderInfoSize> finderInfo{};
    bool found = false;
    for (int at = 0; at < names.count(); ++at) {
        if (std::string_view(names.at(at)) != kFinderInfoName) {
            continue;
        }
        const int size = get_attribute_or_log(job, kFinderInfoName, value);
        if (size < 0) {
            return -1;
        }
        const size_t taken =
            static_cast<size_t>(size) < finderInfo.size() ? static_cast<size_t>(size) : finderInfo.size();
        if (taken > 0) {
            std::memcpy(finderInfo.data(), value.data(), taken);
        }
        found = true;
    }
    HeapBuffer fork;
    const int forkSize = get_fork(job, fork);
    if (forkSize < 0) {
        return -1;
    }
    return found || forkSize > 0 ? write_resource_file(destination, finderInfo, fork, forkSize) : 0;
}

int write_entry(const EaCopyJob &job, VEXOEAS *stream, const char *name, HeapBuffer &value) {
    const int size = get_attribute_or_log(job, name, value);
    if (size < 0) {
        return -1;
    }
    constexpr int kOverwrite = 1;
    // A value of no bytes still needs a place to point at.
    if (remove_longer(stream, name, static_cast<uint32_t>(size)) < 0 ||
        VEXOEASWrite(stream, name, value.data(), static_cast<uint32_t>(size), 0, kOverwrite) < 0) {
        const KeepErrno keep;
        set_error(Error::write, VEXO_EA_COPY_HERE);
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Fail to write eastream(%s). %m", job.dst);
        return -1;
    }
    return 0;
}

int stream_not_opened(const EaCopyJob &job) {
    const KeepErrno keep;
    set_error(Error::open, VEXO_EA_COPY_HERE);
    VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Fail to open eastream(%s). %m", job.dst);
    return -1;
}

// Every other attribute, as an entry of the destination's attribute stream.
int carry_other_attributes(const Destination &destination, const NameList &names) {
    bool any = false;
    for (int at = 0; at < names.count(); ++at) {
        any = any || !is_apple_metadata(names.at(at));
    }
    if (!any) {
        return 0;
    }
    const Fd file = destination.open(kEaStream, O_RDWR | O_CREAT);
    if (!file) {
        return stream_not_opened(destination.job);
    }
    const StreamHandle stream(file.get(), F_WRLCK);
    if (!stream) {
        return stream_not_opened(destination.job);
    }
    HeapBuffer value;
    for (int at = 0; at < names.count(); ++at) {
        if (!is_apple_metadata(names.at(at)) && write_entry(destination.job, stream.get(), names.at(at), value) < 0) {
            return -1;
        }
    }
    return 0;
}

int list_attributes(const FileRef &file, NameList &names) {
    return names ? list_attributes(file, names.slot()) : fail(Error::out_of_memory_ea, VEXO_EA_COPY_HERE);
}

int carry_attributes_to_streams(const EaCopyJob &job, int companion) {
    NameList names;
    if (list_attributes(job.source(), names) < 0) {
        const KeepErrno keep;
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Fail to get EA(%s). %m", job.src);
        return -1;
    }
    const Destination destination{job, companion};
    return carry_apple_metadata(destination, names) < 0 ? -1 : carry_other_attributes(destination, names);
}

constexpr int kAppleDoubleCompanion = 1;

} // namespace

int copy_attributes(const FileRef &src, const FileRef &dst, const char *prefix) {
    NameList names;
    if (list_attributes(src, names) < 0) {
        return -1;
    }
    HeapBuffer value;
    int result = 0;
    int number = 0;
    for (int at = 0; at < names.count(); ++at) {
        const char *name = names.at(at);
        if (!std::string_view(name).starts_with(prefix)) {
            continue;
        }
        const int size = read_attribute(src, name, value);
        if (size < 0 || set_attribute(dst, name, value.data(), size) < 0) {
            number = result == 0 ? errno : number;
            result = -1;
        }
    }
    if (result < 0) {
        errno = number;
    }
    return result;
}

int remove_source_resource(const EaCopyJob &job) {
    if (!job.move || unlink_source_stream(job, kResourceStream, kStreamCompanion) == 0) {
        return 0;
    }
    VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed to remove [%s]->[%s]. %m", job.src, job.dst);
    return -1;
}

int copy_adfs_to_xattrs(const EaCopyJob &job) {
    return carry_streams(job, kAppleDoubleCompanion);
}

int copy_ea_directory_to_xattrs(const EaCopyJob &job) {
    const int result = carry_streams(job, kStreamCompanion);
    if (result < 0) {
        const KeepErrno keep;
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed to cp [%s]->[%s]. %m", job.src, job.dst);
    }
    return result;
}

int copy_xattrs_to_adfs(const EaCopyJob &job) {
    const int result = carry_attributes_to_streams(job, kAppleDoubleCompanion);
    return result < 0 ? result : remove_source_resource(job);
}

int copy_xattrs_to_xattrs(const EaCopyJob &job) {
    if (copy_attributes(job.src, job.dst, "") < 0) {
        return -1;
    }
    HeapBuffer fork;
    const int size = get_fork(job, fork);
    if (size < 0 || (size > 0 && set_attribute(job.dst, kResourceForkName, fork.data(), size) < 0)) {
        return -1;
    }
    return remove_source_resource(job);
}

int copy_xattrs_to_ea_directory(const EaCopyJob &job) {
    const int result = carry_attributes_to_streams(job, kStreamCompanion);
    return result < 0 ? result : remove_source_resource(job);
}

int copy_xattrs_to_file_ea(const EaCopyJob &job) {
    const int result = copy_xattrs_to_ea_directory(job);
    return result < 0 ? result : sync_destination(job);
}

} // namespace vexo
