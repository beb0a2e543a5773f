// The codes a failing call leaves in the platform's last error: one enumerator per code, named by what happened.
#pragma once

#include <cstdint>

namespace vexo {

enum class Error : uint32_t {
    none = 0,
    out_of_memory_ea = 0x0100, // EA directory, attribute list and EA copy buffers; a stream buffer too small;
                               // an EA value over 65536 bytes skipped
    out_of_memory = 0x0200,    // records, copy buffers, duplicated strings
    permission = 0x0300,       // refused; EFAULT in the descriptor loop; a stream handle without the needed lock
    lock = 0x0400,             // whole-file lock on an EA stream file not obtained
    io = 0x0600,               // EIO or EBADF; a destination's parent missing; type unreadable; an entry vanished
    source_missing = 0x0700,   // also an empty resource fork
    rename_callback = 0x0800,  // it failed, or the name it gave exists too
    open = 0x0900,             // source check, archive-bit object, EA files
    read = 0x0a00,             // failed or short; AppleDouble header malformed; Finder Info entry missing
    write = 0x0b00,            // failed or short; setting an attribute; removing a tree with /bin/rm
    invalid_argument = 0x0d00,
    host_down = 0x1100,         // the storage behind the path is gone
    attribute_missing = 0x2000, // not in the EA stream
    quota = 0x2400,
    seek = 0x2600,
    stat = 0x2700,      // for a reason other than absence
    rename_ea = 0x2800, // an EA item, also through /bin/mv
    no_space = 0x2900,
    file_operation = 0x2a00,  // fallocate, ftruncate, fsync, F_GETLK, listxattr, chmod, unlink; entry missing
    remove = 0x3900,          // a tree or an EA file could not be removed
    relocation_move = 0x3a00, // the final move of a relocation
    short_write = 0x3b00,     // in the descriptor loop; copying into the staging directory failed
    make_directory = 0x3c00,  // a staging or EA directory
    upgrade_format = 0x4000,  // not AppleDouble version 2, or without the entries needed
    device = 0x6c00,          // EIO or ENXIO on open, rename, stat, read or write
    other = 0x8000,           // any other errno, always logged with it
    read_only = 0x8400,       // EROFS on the destination
    empty_base_name = 0x9a00,
    not_a_directory = 0xa000,    // the destination exists and is not a directory
    is_directory = 0xa200,       // the destination is a directory
    destination_exists = 0xa300, // and the conflict policy is to fail
    too_large_for_fat = 0xa400,
    cancelled = 0xa600,
    too_large = 0xaa00,       // EFBIG, or over the destination's size limit
    share_missing = 0xbe00,   // never raised here: what a share look-up leaves
    value_too_large = 0xbf00, // for the caller's buffer
    name_too_long = 0xc300,
    reflink_unsupported = 0xd900,
    owner_not_set = 0xfa00, // the copy succeeded, its owner did not
};

} // namespace vexo
