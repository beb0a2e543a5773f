// The routines to volumes that keep Apple's metadata in the file's own attributes, from those that keep it in files.
#include "ea/carry/routines.h"

#include "ea/carry/attributes.h"
#include "ea/carry/conversion.h"
#include "ea/carry/stream_files.h"
#include "ea/carry/sync.h"
#include "ea/carry/two_entries.h"
#include "ea/ea.h"
#include "ea/files/positioned.h"
#include "ea/stream/handle.h"
#include "support/big_endian.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/heap.h"
#include "support/report.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <optional>
#include <sys/stat.h>

namespace vexo {
namespace {

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
        if (stream) {
            set_error(value ? Error::read : Error::out_of_memory_ea, VEXO_EA_COPY_HERE);
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
    // A "._" file may hold something else where the attributes would be.
    const int count = companion == kAppleDoubleCompanion ? attribute_count(fd.get()) : 1;
    if (count <= 0) {
        return {count, count == 0, errno};
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
    std::array<uint8_t, adouble::kFixedSize + kMostEntries * adouble::kEntrySize> bytes;
    const auto refuse = [](Error error) {
        set_error(error, VEXO_EA_COPY_HERE);
        return std::nullopt;
    };
    if (!read_at(fd, bytes.data(), adouble::kFixedSize, 0)) {
        return refuse(Error::read);
    }
    BigEndianReader reader(bytes);
    reader.skip(4);
    const uint32_t version = reader.u32();
    reader.seek(adouble::kFixedSize - 2);
    const uint16_t count = reader.u16();
    if (version != adouble::kVersion || (count != 2 && count != kMostEntries)) {
        return refuse(Error::read);
    }
    if (!read_at(fd, bytes.data() + adouble::kFixedSize, count * adouble::kEntrySize, adouble::kFixedSize)) {
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

} // namespace

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

int copy_file_ea_to_xattrs(const EaCopyJob &job) {
    const int streams = begin_file_ea(job, false);
    if (streams <= 0) {
        return streams;
    }
    const int result = copy_ea_directory_to_xattrs(job);
    return result != 0 ? result : drop_metadata_attribute(job);
}

} // namespace vexo
