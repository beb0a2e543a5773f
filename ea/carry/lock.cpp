// Carrying the locked state of a file: write permission on some volumes, a flag of the platform and a bit of the AFP
// attribute word on others.
#include "ea/carry/routines.h"

#include "ea/carry/store_directory.h"
#include "ea/carry/two_entries.h"
#include "ea/double/metadata_attribute.h"
#include "ea/double/resource_path.h"
#include "ea/ea.h"
#include "support/big_endian.h"
#include "support/dos_attributes.h"
#include "support/file_calls.h"
#include "support/report.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo {
namespace {

// The name under which it reports.
constexpr char kLockSource[] = "ea/ea_copy_lock.c";

constexpr char kEntryName[] = "VEXOEACopyLock";

// The AFP attribute word, and the bits of it that each mean that the file may not be changed.
constexpr uint64_t kAfpWordOffset = 2;
constexpr uint16_t kAfpLockedBits = 0x0100 | 0x0080 | 0x0020;
constexpr uint8_t kAfpLockBitOfFirstByte = 0x01;

constexpr mode_t kWriteBits = 0222;
constexpr int kResourceHeaderSize = 741;
constexpr int kMetadataAttributeSize = 402;
constexpr int kUnknownSource = -2;
constexpr int kSourceGone = 2;

using ReadMetadata = int (*)(const FileRef &, VEXOEAAdouble *);

// The AFP attribute word in a header; null when it has none.
uint8_t *afp_word(VEXOEAAdouble &metadata) {
    const uint64_t offset = metadata.entries[kFileServerInfoEntry].offset;
    const uint64_t end = sizeof metadata.raw - kAfpWordOffset - sizeof(uint16_t);
    return offset == 0 || offset > end ? nullptr : metadata.raw + offset + kAfpWordOffset;
}

int locked_by_mode(const FileRef &file) {
    struct stat status;
    if (file.status(status) != 0) {
        return errno == ENOENT ? kSourceGone : fail(Error::other, VEXO_AT(kLockSource));
    }
    return (status.st_mode & kWriteBits) == 0 ? 1 : 0;
}

// The platform's flag; one that cannot be read is not set.
int flag_of(const FileRef &file) {
    VLIBCStat status;
    if (extended_status(file, VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &status) != 0) {
        return errno == ENOENT ? kSourceGone : 0;
    }
    return (status.attributes & VLIBC_ATTR_LOCKED) != 0 ? 1 : 0;
}

// A null `read` stands for metadata that are known not to be there.
int locked_by_flag(const FileRef &file, ReadMetadata read) {
    const int flag = flag_of(file);
    if (flag != 0 || read == nullptr) {
        return flag;
    }
    VEXOEAAdouble metadata;
    const int found = read(file, &metadata);
    if (found != 0) {
        return found < 0 ? -1 : 0;
    }
    const uint8_t *word = afp_word(metadata);
    return word != nullptr && (big_endian::load(word, sizeof(uint16_t)) & kAfpLockedBits) != 0 ? 1 : 0;
}

// Of a kind that keeps the state, as is write_lock()'s.
int read_lock(const EaCopyJob &job) {
    if (job.srcKind() != StoreKind::ea_directory && job.srcKind() != StoreKind::file_ea) {
        return locked_by_mode(job.source());
    }
    const ReadMetadata read = job.srcKind() == StoreKind::file_ea ? read_metadata_attribute : read_resource_header;
    const bool nothing = job.nothingStored || (job.noAfpWord && job.srcKind() == StoreKind::ea_directory);
    return locked_by_flag(job.source(), nothing ? nullptr : read);
}

int set_mode(const FileRef &file, bool locked) {
    struct stat status;
    if (file.status(status) != 0) {
        return fail(Error::other, VEXO_AT(kLockSource));
    }
    const uid_t user = ::geteuid();
    if (user != 0 && user != status.st_uid) {
        return 0;
    }
    const mode_t before = status.st_mode & 07777;
    const mode_t mode = locked ? before & ~kWriteBits : before | kWriteBits;
    return file.change_mode(mode) == 0 ? 0 : fail(Error::file_operation, VEXO_AT(kLockSource));
}

int set_flag(const FileRef &file, bool locked) {
    return command_attribute(file, locked ? AttributeCommand::lock : AttributeCommand::unlock) < 0
               ? fail(Error::file_operation, VEXO_AT(kLockSource))
               : 0;
}

// Sets or clears the bit in a header that was read. false: there is nothing to write back.
bool set_afp_bit(VEXOEAAdouble &metadata, bool locked) {
    uint8_t *word = afp_word(metadata);
    if (word == nullptr) {
        return false;
    }
    *word = static_cast<uint8_t>(locked ? *word | kAfpLockBitOfFirstByte : *word & ~kAfpLockBitOfFirstByte);
    return true;
}

int set_in_ea_directory(const FileRef &file, StoreSeen seen, bool noWord, bool locked) {
    if (set_flag(file, locked) < 0) {
        return -1;
    }
    if (noWord || has_no_ea_directory(file.path(), seen)) {
        return 0;
    }
    VEXOEAAdouble metadata;
    const int found = read_resource_header(file, &metadata);
    if (found != 0) { // none yet: it is left alone
        return found < 0 ? -1 : 0;
    }
    return set_afp_bit(metadata, locked) ? VEXOEAEADirAdoubleFlush(metadata.raw, kResourceHeaderSize, file.path()) : 0;
}

int set_in_file_ea(const FileRef &file, bool noMetadata, bool locked) {
    if (set_flag(file, locked) < 0) {
        return -1;
    }
    if (noMetadata) {
        return 0;
    }
    VEXOEAAdouble metadata;
    const int found = read_metadata_attribute(file, &metadata);
    if (found != 0) {
        return found < 0 ? -1 : 0;
    }
    return set_afp_bit(metadata, locked) ? write_metadata_attribute(metadata.raw, kMetadataAttributeSize, file) : 0;
}

int write_lock(const EaCopyJob &job, bool locked) {
    if (job.dstKind() == StoreKind::ea_directory) {
        const bool neither = job.seen == StoreSeen::neither;
        return set_in_ea_directory(job.destination(), neither && !job.nothingStored ? StoreSeen::unknown : job.seen,
                                   job.noAfpWord, locked);
    }
    if (job.dstKind() == StoreKind::file_ea) {
        // An open destination was made by this copy, and has the attributes of the source.
        const bool none = job.destination().is_open() && job.nothingStored && job.srcKind() == StoreKind::file_ea;
        return set_in_file_ea(job.destination(), none, locked);
    }
    return set_mode(job.destination(), locked);
}

// Whether the state of the source will be read for certain, which tells whether there is a source at all.
bool will_be_read(const EaCopyJob &job) {
    return job.srcCode >= 0 && job.dstCode >= 0 && job.srcKind() != StoreKind::other &&
           job.dstKind() != StoreKind::other;
}

int carry(EaCopyJob &job) {
    struct stat status;
    if (!will_be_read(job) && job.source().status(status) != 0 && errno == ENOENT) {
        return 0;
    }
    if (look_up_source_kind(job, kEntryName, kLockSource) < 0 ||
        look_up_destination_kind(job, kEntryName, kLockSource) < 0) {
        return -1;
    }
    if (job.srcKind() == StoreKind::other) {
        set_error(Error::other, VEXO_AT(kLockSource));
        return kUnknownSource;
    }
    if (job.dstKind() == StoreKind::other) {
        return 0;
    }
    const int locked = read_lock(job);
    if (locked == kSourceGone) {
        return 0;
    }
    return locked < 0 ? -1 : write_lock(job, locked == 1);
}

} // namespace

int copy_lock(EaCopyJob job) {
    if (job.src == nullptr || job.dst == nullptr || *job.src == '\0' || *job.dst == '\0') {
        return fail(Error::invalid_argument, VEXO_AT(kLockSource));
    }
    const int result = carry(job);
    if (result < 0) {
        VEXO_LOG_LAST_ERROR(VEXO_AT(kLockSource), "EACopy lock fail: from [%s] to [%s] %m", job.src, job.dst);
    }
    return result;
}

} // namespace vexo
