// What an AppleDouble resource says of the file itself.
#include "ea/double/format.h"
#include "ea/files/held_file.h"
#include "ea/files/positioned.h"
#include "ea/files/store_file.h"
#include "ea/upgrade/upgrade.h"
#include "platform/core.h"
#include "support/big_endian.h"
#include "support/dos_attributes.h"
#include "support/report.h"

#include <array>
#include <cstdint>
#include <fcntl.h>
#include <sys/stat.h>

namespace vexo {
namespace {

struct FileFlags {
    bool locked = false;
    bool hidden = false;
};

// Where the words with the flags lie; 0: there is none.
struct FlagPlaces {
    uint64_t finderFlags = 0;
    uint64_t attributes = 0;
};

bool read_word(int fd, uint64_t offset, uint16_t *word) {
    std::array<uint8_t, 2> bytes;
    if (!read_at(fd, bytes.data(), bytes.size(), offset)) {
        set_error(Error::read, VEXO_UPGRADE_HERE);
        return false;
    }
    *word = static_cast<uint16_t>(big_endian::load(bytes.data(), bytes.size()));
    return true;
}

bool find_flags(int fd, FlagPlaces *places) {
    constexpr size_t kHeaderSize = 26;
    constexpr size_t kDescriptorSize = 12;
    constexpr uint64_t kFinderFlagsOffset = 8;
    constexpr uint64_t kAttributesOffset = 2;
    std::array<uint8_t, kHeaderSize> header;
    if (!read_at(fd, header.data(), header.size(), 0)) {
        set_error(Error::read, VEXO_UPGRADE_HERE);
        return false;
    }
    const uint64_t version = big_endian::load(header.data() + 4, 4);
    const uint64_t count = big_endian::load(header.data() + 24, 2);
    if (version != adouble::kVersion || count == 0) {
        set_error(Error::upgrade_format, VEXO_UPGRADE_HERE);
        return false;
    }
    for (uint64_t at = 0; at < count; ++at) {
        std::array<uint8_t, kDescriptorSize> descriptor;
        if (!read_at(fd, descriptor.data(), descriptor.size(), kHeaderSize + at * kDescriptorSize)) {
            set_error(Error::read, VEXO_UPGRADE_HERE);
            return false;
        }
        const uint64_t id = big_endian::load(descriptor.data(), 4);
        const uint64_t offset = big_endian::load(descriptor.data() + 4, 4);
        if (id == adouble::finder_info) {
            places->finderFlags = offset + kFinderFlagsOffset;
        } else if (id == adouble::file_server_info) {
            places->attributes = offset + kAttributesOffset;
        }
    }
    if (places->finderFlags == 0 && places->attributes == 0) {
        set_error(Error::upgrade_format, VEXO_UPGRADE_HERE);
        return false;
    }
    return true;
}

bool read_flags(const char *resource, FileFlags *flags) {
    constexpr uint16_t kAttributeLocked = 0x0020;
    constexpr uint16_t kAttributeHidden = 0x0001;
    constexpr uint16_t kFinderInvisible = 0x4000;
    const Fd fd = open_store_file(resource, O_RDONLY);
    if (!fd) {
        set_error(Error::open, VEXO_UPGRADE_HERE);
        return false;
    }
    FlagPlaces places;
    uint16_t attributes = 0;
    uint16_t finderFlags = 0;
    if (!find_flags(fd.get(), &places) ||
        (places.attributes != 0 && !read_word(fd.get(), places.attributes, &attributes)) ||
        (places.finderFlags != 0 && !read_word(fd.get(), places.finderFlags, &finderFlags))) {
        return false;
    }
    flags->locked = (attributes & kAttributeLocked) != 0;
    flags->hidden = (attributes & kAttributeHidden) != 0 || (finderFlags & kFinderInvisible) != 0;
    return true;
}

bool is_one_file(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// A file that is read-only already stays so: an upgrade never unlocks.
mode_t upgraded_mode(mode_t mode, bool locked) {
    constexpr mode_t kWriteBits = 0222;
    mode &= 07777;
    if ((mode & kWriteBits) == 0) {
        return mode;
    }
    return locked ? mode & ~kWriteBits : mode | kWriteBits;
}

// A link has no flags, and the file that it leads to has not got this store: whoever may put one there could have any
// file made writable for everybody. What stands there is looked at once, and nothing is done to another.
void apply_flags(const char *path, const FileFlags &flags) {
    VLIBCStat status;
    struct stat entry;
    if (VLIBCFileStat(path, VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &status) != 0) {
        set_error(Error::stat, VEXO_UPGRADE_HERE);
        return;
    }
    const bool looked = ::lstat(path, &entry) == 0;
    const HeldFile file = looked ? HeldFile(path, entry) : HeldFile();
    if (!file || !is_one_file(entry, status.st) || file.change_mode(upgraded_mode(entry.st_mode, flags.locked)) != 0) {
        set_error(Error::file_operation, VEXO_UPGRADE_HERE);
        return;
    }
    const bool hidden = (status.attributes & VLIBC_ATTR_HIDDEN) != 0 || flags.hidden;
    if (command_attribute({path, file.fd()}, hidden ? AttributeCommand::set_hidden : AttributeCommand::clear_hidden) <
        0) {
        set_error(Error::file_operation, VEXO_UPGRADE_HERE);
    }
}

} // namespace

void carry_file_flags(const char *resource, const char *path) {
    FileFlags flags;
    if (read_flags(resource, &flags)) {
        apply_flags(path, flags);
    }
}

} // namespace vexo
