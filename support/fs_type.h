// File-system type codes, as VEXOGetFSType gives them, and what each means to the copies: one row a code.
#pragma once

#include <cstdint>

namespace vexo {

enum class FsType : int32_t {
    unknown = -1, // not looked up yet
    fat = 0,
    generic = 1,
    extended = 2, // ext2, ext3, ext4, XFS: metadata header in an attribute, streams in "@eaDir"
    btrfs = 3,    // as extended, and clones are made
    ntfs = 5,
    eadir6 = 6,
    hfsplus = 7, // Apple metadata as the file's own attributes
    eadir10 = 10,
    remote = 12, // no free-space check, no Unix owners
    exfat = 18,
    eadir19 = 19,
    k7fs = 22, // the cloud file system, whose size limit a plug-in tells
};

// The codes above, found again in what a record or the platform gives as a number.
constexpr bool is_type(int32_t code, FsType type) {
    return code == static_cast<int32_t>(type);
}

// Names are fixed up for FAT and exFAT, which reserve characters.
constexpr bool reserves_characters(int32_t code) {
    return is_type(code, FsType::fat) || is_type(code, FsType::exfat);
}

} // namespace vexo
