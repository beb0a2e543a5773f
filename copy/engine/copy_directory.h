// The directory copy of the option family, for the front doors that start it.
#pragma once

#include "copy/copy.h"
#include "copy/engine/file_copy.h"

namespace vexo {

// Clones the files of a tree (VEXOFileReflinkCopy) where it is set.
inline constexpr uint32_t kCloneFlag = 0x400;
// A tree that a relocation stages: an entry whose paths are too long ends it.
inline constexpr uint32_t kStagingFlag = 0x800;

// Types of the two volumes, looked up for a directory copy.
struct DirectoryKinds {
    int32_t src;
    int32_t dst;
};
// Of the source itself, and of the directory that is to hold the destination. 0 or -1, reported under `source`.
int look_up_directory_kinds(const char *src, const char *dst, DirectoryKinds *kinds, const char *source);

// A regular file of a tree: VEXOCopyFileExI with the source's type to be looked up, save that the volume of its
// directory is known where `directory` is not null.
int copy_file_of_directory(const char *src, const char *dst, VEXOCopyOpt *opt, int dstType, VEXOCopyArgsEx *ex,
                           const WalkedDirectory *directory);

// The same for VEXOFileReflinkCopy.
int clone_file_of_directory(const char *src, const char *dst, VEXOCopyOpt *opt, VEXOCopyArgsEx *ex,
                            const WalkedDirectory *directory);

// The worker behind the exported directory copies. `cancelled` becomes true when the cancel callback stopped it, which
// is a 0 too.
int copy_directory(const char *src, const char *dst, int srcKind, int dstKind, VEXOCopyOpt *opt, VEXOCopyArgsEx *ex,
                   uint32_t flags, bool *cancelled);

// With the kinds looked up and the umask cleared, as VEXOFileCopyDirectoryEx and its siblings do it.
int copy_directory_anywhere(const char *src, const char *dst, VEXOCopyOpt *opt, VEXOCopyArgsEx *ex, uint32_t flags,
                            bool *cancelled);

} // namespace vexo
