// One request to carry what belongs to a file from one path to another, and the routines that serve it.
//
// A routine carries everything between one pair of kinds of store. It reports what went wrong itself and returns 0, or
// a negative number; errno is that of the failure.
#pragma once

#include "ea/carry/known.h"
#include "ea/names/store.h"
#include "support/callback.h"
#include "support/file_ref.h"
#include "support/path_buffer.h"

#include <cstddef>
#include <cstdint>

namespace vexo {

// The name under which all of it reports.
inline constexpr char kEaCopySource[] = "ea/ea_copy.c";
#define VEXO_EA_COPY_HERE VEXO_AT(::vexo::kEaCopySource)

// The largest value that an attribute of a file can have.
inline constexpr uint32_t kLargestAttribute = 65536;

// AppleDouble entries.
inline constexpr uint32_t kResourceForkEntry = 2;
inline constexpr uint32_t kFinderInfoEntry = 9;
inline constexpr uint32_t kFileServerInfoEntry = 14;
inline constexpr uint32_t kFinderInfoSize = 32;

// "This pair cannot be converted", as a routine says it: only the locked state is carried then.
inline constexpr int kCannotConvert = -4;
inline constexpr int kCannotConvertCode = 0xc300;
inline constexpr int kNameTooLong = -3;

using CopyFileCallback = Callback<int(const char *, const char *)>;

struct EaCopyJob {
    const char *src;
    const char *dst;
    bool move;
    bool fullDirectory; // carry the rest of the source's directory even from or to the AppleDouble kind
    int32_t srcCode;
    int32_t dstCode;
    CopyFileCallback copyFile;    // in place of the copy of one file of the store
    bool copyFileOfFileOperation; // it came from a file-operation record, whose log lines differ
    StoreSeen seen = StoreSeen::unknown;
    bool nothingStored = false; // the source has no "@eaDir" and, where it could, no metadata attribute

    int srcFd = -1; // where the files are open
    int dstFd = -1;

    FileRef source() const { return {src, srcFd}; }
    FileRef destination() const { return {dst, dstFd}; }
    StoreKind srcKind() const { return store_kind(srcCode); }
    // Type 12 takes what another kind keeps in "@eaDir", and only that.
    StoreKind dstKind() const {
        const bool fromEaDirectory = srcKind() == StoreKind::ea_directory || srcKind() == StoreKind::file_ea;
        return dstCode == 12 && fromEaDirectory ? StoreKind::ea_directory : store_kind(dstCode);
    }
    // The "@eaDir" of a type-12 source is never removed.
    bool keepsSourceDirectory() const { return srcCode == 12; }
};

// Fills in a kind of -1: of the source itself, of the directory that holds the destination. Reported under the names of
// the entry point and its source. 0 or -1.
int look_up_source_kind(EaCopyJob &job, const char *entry, const char *source);
int look_up_destination_kind(EaCopyJob &job, const char *entry, const char *source);

// Copying one file of a store, with mode 0777. 0: copied; kNothingToCopy: the source may not be looked at or is not
// there; -1: failed, reported, and the destination is gone.
inline constexpr int kNothingToCopy = 1;
int copy_store_file(const char *from, const char *to);

// Which streams a path has: 1 the resource stream, 2 the attribute stream; -1 when a path cannot be built.
inline constexpr int kHasResource = 1;
inline constexpr int kHasEaStream = 2;
int stream_presence(const FileRef &file, StoreSeen seen = StoreSeen::unknown);

// Whether the "@eaDir" beside a path is certainly not there, so that nothing in it needs to be looked for: one look, or
// none where a walk has seen enough, in place of one for each companion, whose paths moreover depend on the volume's
// longest name. Leaves errno alone.
bool has_no_ea_directory(const char *path, StoreSeen seen);

// Makes the "@eaDir" (kSharedDirectory), or the path's own directory in it (kPerFileDirectory) after removing what
// stood there, and leaves its path in `directory`. 0 or -1, reported.
int prepare_ea_directory(int which, const char *path, PathBuffer &directory);

// Unlinks a stream of the source that has been carried. One that is not there is no failure. 0 or -1 with the error.
int unlink_source_stream(const EaCopyJob &job, const char *stream, int companion);

// Removes a tree that is there; one that is not is no failure. 0, or -1 with a log line.
int remove_source_tree(const char *path);

// Reads `size` bytes at `offset`. false, with errno, when they are not all there (errno is 0 at the end of the file).
bool read_at(int fd, void *to, size_t size, uint64_t offset);
// Writes all of it at `offset`. false with errno.
bool write_at(int fd, const void *from, size_t size, uint64_t offset);

// Copies one AppleDouble file into another in the form of two entries: Finder Info and resource fork. Attributes in the
// source are not carried. Results below 0 as the routines log them.
enum class ConvertMode { checked = 0, plain = 1, as_is = 2, checked_as_is = 3 };
int convert_apple_double(const char *from, const char *to, ConvertMode mode);

// Writes all attributes of one stream into another, over those of the same names. 0, or -1 when any failed; how many is
// not told, since it could be taken for "cannot be converted".
int write_attributes(int from, int to);

// The routines, by the kinds they convert between.
int copy_adfs_to_adfs(const EaCopyJob &job);
int copy_adfs_to_xattrs(const EaCopyJob &job);
int copy_adfs_to_ea_directory(const EaCopyJob &job);
int copy_adfs_to_file_ea(const EaCopyJob &job);
int copy_xattrs_to_adfs(const EaCopyJob &job);
int copy_xattrs_to_xattrs(const EaCopyJob &job);
int copy_xattrs_to_ea_directory(const EaCopyJob &job);
int copy_xattrs_to_file_ea(const EaCopyJob &job);
int copy_ea_directory_to_adfs(const EaCopyJob &job);
int copy_ea_directory_to_xattrs(const EaCopyJob &job);
int copy_ea_directory_to_ea_directory(const EaCopyJob &job);
int copy_ea_directory_to_file_ea(const EaCopyJob &job);
int copy_file_ea_to_adfs(const EaCopyJob &job);
int copy_file_ea_to_xattrs(const EaCopyJob &job);
int copy_file_ea_to_ea_directory(const EaCopyJob &job);
int copy_file_ea_to_file_ea(const EaCopyJob &job);

// Copies the attributes whose names begin with `prefix` (empty: all). What fails is passed over; -1 at the end then.
int copy_attributes(const FileRef &src, const FileRef &dst, const char *prefix);

// Brings the source's metadata attribute back into its resource file, before that is read.
int sync_source(const EaCopyJob &job);
// Brings the destination's metadata attribute up to date with its resource file, where it has one.
int sync_destination(const EaCopyJob &job);
// Where a volume keeps attributes of its own beside the streams: what is left of them at a moved source goes.
int drop_metadata_attribute(const EaCopyJob &job);
int remove_source_resource(const EaCopyJob &job);

// The rest of the source's directory in "@eaDir", and what a move leaves behind.
int carry_rest(const EaCopyJob &job);

// Carries the locked state; kinds of -1 are looked up. 0 or -1, reported.
int copy_lock(EaCopyJob job);

} // namespace vexo
