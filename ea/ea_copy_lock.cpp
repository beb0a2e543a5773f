// Carrying the locked state of a file: write permission on some volumes, a flag of the platform and a bit of the AFP
// attribute word on others.
#include "ea/ea_copy_job.h"

#include "ea/ea.h"
#include "support/big_endian.h"
#include "support/dos_attributes.h"
#include "support/report.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo {
namespace {

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

using ReadMetadata = int (*)(const char *, VEXOEAAdouble *);

// The AFP attribute word in a header; null when it has none.
uint8_t *afp_word(VEXOEAAdouble &metadata) {
    const uint64_t offset = metadata.entries[kFileServerInfoEntry].offset;
    const uint64_t end = sizeof metadata.raw - kAfpWordOffset - sizeof(uint16_t);
    return offset == 0 || offset > end ? nullptr : metadata.raw + offset + kAfpWordOffset;
}

int locked_by_mode(const char *path) {
    struct stat status;
    if (::stat(path, &status) != 0) {
        return errno == ENOENT ? kSourceGone : -1;
    }
    return (status.st_mode & kWriteBits) == 0 ? 1 : 0;
}

// The platform's flag; one that cannot be read is not set.
int flag_of(const char *path) {
    VLIBCStat status;
    if (VLIBCFileStat(path, VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &status) != 0) {
        return errno == ENOENT ? kSourceGone : 0;
    }
    return (status.attributes & VLIBC_ATTR_LOCKED) != 0 ? 1 : 0;
}

// A null `read` stands for metadata that are known not to be there.
int locked_by_flag(const char *path, ReadMetadata read) {
    const int flag = flag_of(path);
    if (flag != 0 || read == nullptr) {
        return flag;
    }
    VEXOEAAdouble metadata;
    const int found = read(path, &metadata);
    if (found != 0) {
        return found < 0 ? -1 : 0;
    }
    const uint8_t *word = afp_word(metadata);
    return word != nullptr && (big_endian::load(word, sizeof(uint16_t)) & kAfpLockedBits) != 0 ? 1 : 0;
}

int read_lock(const EaCopyJob &job) {
    switch (job.srcKind()) {
    case StoreKind::apple_double:
    case StoreKind::native_xattr:
        return locked_by_mode(job.src);
    case StoreKind::ea_directory:
        return locked_by_flag(job.src, job.nothingStored ? nullptr : VEXOEAEADirAdoubleRead);
    case StoreKind::file_ea:
        return locked_by_flag(job.src, VEXOEAFileEAAdoubleRead);
    case StoreKind::other:
        break;
    }
    return kUnknownSource;
}

int set_mode(const char *path, bool locked) {
    struct stat status;
    if (::stat(path, &status) != 0) {
        return -1;
    }
    const uid_t user = ::geteuid();
    if (user != 0 && user != status.st_uid) {
        return 0;
    }
    const mode_t before = status.st_mode & 07777;
    const mode_t mode = locked ? before & ~kWriteBits : before | kWriteBits;
    return ::chmod(path, mode) == 0 ? 0 : fail(Error::file_operation, VEXO_HERE);
}

int set_flag(const char *path, bool locked) {
    return command_attribute(path, locked ? AttributeCommand::lock : AttributeCommand::unlock) < 0 ? -1 : 0;
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

int set_in_ea_directory(const char *path, bool noStore, bool locked) {
    if (set_flag(path, locked) < 0) {
        return -1;
    }
    if (has_no_ea_directory(path, noStore)) {
        return 0;
    }
    VEXOEAAdouble metadata;
    const int found = VEXOEAEADirAdoubleRead(path, &metadata);
    if (found != 0) { // none yet: it is left alone
        return found < 0 ? -1 : 0;
    }
    return set_afp_bit(metadata, locked) ? VEXOEAEADirAdoubleFlush(metadata.raw, kResourceHeaderSize, path) : 0;
}

int set_in_file_ea(const char *path, bool locked) {
    if (set_flag(path, locked) < 0) {
        return -1;
    }
    VEXOEAAdouble metadata;
    const int found = VEXOEAFileEAAdoubleRead(path, &metadata);
    if (found != 0) {
        return found < 0 ? -1 : 0;
    }
    return set_afp_bit(metadata, locked) ? VEXOEAFileEAAdoubleFlush(metadata.raw, kMetadataAttributeSize, path) : 0;
}

int write_lock(const EaCopyJob &job, bool locked) {
    switch (job.dstKind()) {
    case StoreKind::apple_double:
    case StoreKind::native_xattr:
        return set_mode(job.dst, locked);
    case StoreKind::ea_directory:
        return set_in_ea_directory(job.dst, job.nothingStored && job.noStore, locked);
    case StoreKind::file_ea:
        return set_in_file_ea(job.dst, locked);
    case StoreKind::other:
        break;
    }
    return 0;
}

// Whether the state of the source will be read for certain, which tells whether there is a source at all.
bool will_be_read(const EaCopyJob &job) {
    return job.srcCode >= 0 && job.dstCode >= 0 && job.srcKind() != StoreKind::other &&
           job.dstKind() != StoreKind::other;
}

int carry(EaCopyJob &job) {
    struct stat status;
    if (!will_be_read(job) && ::stat(job.src, &status) != 0 && errno == ENOENT) {
        return 0;
    }
    if (look_up_source_kind(job, kEntryName, VEXO_SOURCE) < 0 ||
        look_up_destination_kind(job, kEntryName, VEXO_SOURCE) < 0) {
        return -1;
    }
    if (job.srcKind() == StoreKind::other) {
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

int copy_lock(const char *src, const char *dst, int srcCode, int dstCode, bool nothingStored, bool noStore) {
    if (src == nullptr || dst == nullptr || *src == '\0' || *dst == '\0') {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    EaCopyJob job{src, dst, false, false, srcCode, dstCode, {}, false, noStore, nothingStored};
    const int result = carry(job);
    if (result < 0) {
        VEXO_LOG_LAST_ERROR(VEXO_HERE, "EACopy lock fail: from [%s] to [%s] %m", src, dst);
    }
    return result;
}

} // namespace vexo
