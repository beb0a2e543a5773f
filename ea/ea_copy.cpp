// Carrying everything that belongs to a file from one path to another, whatever the two volumes keep it in.
#include "ea/ea.h"

#include "ea/carry/job.h"
#include "ea/carry/known.h"
#include "ea/carry/routines.h"
#include "ea/carry/store_directory.h"
#include "ea/carry/stream_files.h"
#include "ea/double/metadata_attribute.h"
#include "ea/names/entry.h"
#include "platform/sdk.h"
#include "support/dos_attributes.h"
#include "support/guards.h"
#include "support/path_buffer.h"
#include "support/report.h"
#include "support/text.h"

#include <cerrno>
#include <string_view>
#include <sys/stat.h>

using namespace vexo;

namespace {

constexpr char kEntryName[] = "VEXOEACopyInternal";

using Routine = int (*)(const EaCopyJob &);

// A row for each kind of source, a column for each kind of destination.
constexpr Routine kRoutines[4][4] = {
    {copy_adfs_to_adfs, copy_adfs_to_xattrs, copy_adfs_to_ea_directory, copy_adfs_to_file_ea},
    {copy_xattrs_to_adfs, copy_xattrs_to_xattrs, copy_xattrs_to_ea_directory, copy_xattrs_to_file_ea},
    {copy_ea_directory_to_adfs, copy_ea_directory_to_xattrs, copy_ea_directory_to_ea_directory,
     copy_ea_directory_to_file_ea},
    {copy_file_ea_to_adfs, copy_file_ea_to_xattrs, copy_file_ea_to_ea_directory, copy_file_ea_to_file_ea},
};
static_assert(static_cast<int>(StoreKind::apple_double) == 0 && static_cast<int>(StoreKind::native_xattr) == 1 &&
              static_cast<int>(StoreKind::ea_directory) == 2 && static_cast<int>(StoreKind::file_ea) == 3);

// Whether a component other than the last is named like such a folder, wherever the volume begins.
bool names_internal_folder(std::string_view path) {
    for (size_t slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/')) {
        if (slash > 0 && path.front() == '@' && path[slash - 1] == '@') {
            return true;
        }
        path.remove_prefix(slash + 1);
    }
    return false;
}

// Below a folder that the volume keeps for itself, such as "@tmp@", nothing is converted. Finding the volume costs a
// look at every directory above the path, so it is asked only where the answer can matter.
bool in_internal_folder(const char *path) {
    if (!names_internal_folder(path)) {
        return false;
    }
    PathBuffer volume;
    PathBuffer rest;
    if (VolumePathParseEx(path, volume.fill(), PathBuffer::kSize, rest.fill(), PathBuffer::kSize) < 0) {
        return false;
    }
    rest.adopt();
    const size_t slash = rest.view().find('/');
    return slash != std::string_view::npos && slash > 0 && rest.view().front() == '@' && rest.view()[slash - 1] == '@';
}

// What the stage of the streams leaves to do.
enum class Converted { all, lock_only, failed };

Converted convert(const EaCopyJob &job) {
    const Routine routine = kRoutines[static_cast<int>(job.srcKind())][static_cast<int>(job.dstKind())];
    errno = 0; // what it says afterwards is the routine's
    const int result = routine(job);
    if (result == kCannotConvert || result == kCannotConvertCode) {
        return Converted::lock_only;
    }
    if (result >= 0) {
        return Converted::all;
    }
    if (errno != EOPNOTSUPP) {
        VEXO_LOG_LAST_ERROR(VEXO_HERE, "EACopy fail: from [%s] to [%s] %m", job.src, job.dst);
    }
    return Converted::failed;
}

int carry_lock(const EaCopyJob &job) {
    return !job.recordSet && copy_lock(job) < 0 ? -1 : 0;
}

int finish(const EaCopyJob &job) {
    if (carry_rest(job) < 0) {
        return -1;
    }
    if (!job.recordSet && command_attribute(job.destination(), AttributeCommand::set_archive) < 0) {
        VEXO_LOG_ERROR(VEXO_HERE, "Failed to set %s smb archive. %m", job.dst);
    }
    return 0;
}

bool lacks_metadata(const EaCopyJob &job) {
    const KeepErrno keep;
    return job.names != nullptr ? !job.names->has(kMetadataAttribute)
                                : job.source().get_attribute(kMetadataAttribute, nullptr, 0) < 0 && errno == ENODATA;
}

// On a volume with a metadata attribute an "@eaDir" may be made of that, so that both have to be absent; it is asked
// for only where the caller knows the rest.
bool has_nothing_stored(const EaCopyJob &job) {
    if (job.srcKind() == StoreKind::ea_directory) {
        return has_no_ea_directory(job.src, job.seen);
    }
    return job.srcKind() == StoreKind::file_ea && job.seen == StoreSeen::neither &&
           has_no_ea_directory(job.src, job.seen) && lacks_metadata(job);
}

std::string_view last_component(std::string_view path) {
    return behind(path, path.rfind('/') + 1); // npos + 1 is 0
}

bool is_one_directory(const char *srcEntry, const char *dstEntry) {
    struct stat one;
    struct stat other;
    const auto look = [](std::string_view path, struct stat &out) {
        path.remove_suffix(last_component(path).size());
        const PathBuffer directory(path.empty() ? "." : path);
        return !directory.overflowed() && ::stat(directory.c_str(), &out) == 0;
    };
    return look(srcEntry, one) && look(dstEntry, other) && is_one_file(one, other);
}

// Whether both paths lead to one entry of one directory: then all that belongs to it is there. Two names of one file
// may still have stores of their own, and a store may have two names; that is found out store by store. On type 12
// inodes prove nothing.
bool is_one_place(const EaCopyJob &job) {
    const std::string_view src = job.src;
    if (src == job.dst) {
        return true;
    }
    const KeepErrno keep;
    struct stat one;
    struct stat other;
    return job.srcCode != 12 && job.dstCode != 12 && last_component(src) == last_component(job.dst) &&
           job.source().status(one) == 0 && job.destination().status(other) == 0 && is_one_file(one, other) &&
           is_one_directory(job.src, job.dst);
}

int run(EaCopyJob &job) {
    if (look_up_source_kind(job, kEntryName, VEXO_SOURCE) < 0) {
        return -1;
    }
    const bool internal = in_internal_folder(job.src);
    if (look_up_destination_kind(job, kEntryName, VEXO_SOURCE) < 0) {
        return -1;
    }
    job.nothingStored = has_nothing_stored(job);
    // What is stored is proven to be two things when it comes to it, too; where nothing is, the caller's look will do,
    // and so it will of a destination that is open, which this copy has made.
    if (!(job.apart && (job.nothingStored || job.destination().is_open())) && is_one_place(job)) {
        return 0;
    }
    if (internal) {
        job.streamsStay = true;
        return finish(job);
    }
    if (job.srcKind() == StoreKind::other) {
        return fail(Error::other, VEXO_HERE);
    }
    if (job.dstKind() == StoreKind::other) {
        return carry_lock(job);
    }
    switch (convert(job)) {
    case Converted::lock_only:
        return carry_lock(job);
    case Converted::failed:
        return -1;
    case Converted::all:
        break;
    }
    return carry_lock(job) < 0 ? -1 : finish(job);
}

// Every failure has a last error, a stale one of the caller's is none; what a success does not set stays as it was.
int run_with_error(EaCopyJob &job) {
    const uint32_t code = VLIBCErrGet();
    const char *const file = VLIBCErrorGetFile();
    const uint32_t line = VLIBCErrorGetLine();
    set_error(Error::none, VEXO_HERE);
    const int result = run(job);
    if (last_error() != Error::none) {
        return result;
    }
    if (result < 0) {
        return fail(Error::other, VEXO_HERE);
    }
    VLIBCErrSetEx(code, file, line);
    return result;
}

// Kinds that keep the locked state where the archive bit is.
bool keeps_lock_as_flag(StoreKind kind) {
    return kind == StoreKind::ea_directory || kind == StoreKind::file_ea;
}

} // namespace

bool vexo::is_plain_file(const char *src, const char *dst, int srcKind, int dstKind, StoreSeen seen,
                         const AttributeNames &names) {
    return seen != StoreSeen::source && keeps_lock_as_flag(store_kind(srcKind)) &&
           keeps_lock_as_flag(store_kind(dstKind)) && !names.has(kMetadataAttribute) &&
           has_no_ea_directory(src, seen) && has_no_ea_directory(dst, seen) && !names_internal_folder(src);
}

int vexo::copy_ea(const FileRef &source, const FileRef &destination, int move, int fullDir, int srcKind, int dstKind,
                  VEXOCopyArgsEx *options, VEXOCopyTHRArgs *copyEngine, VEXOCopyArgs *fileOp,
                  const KnownOfFile &known) {
    const char *const src = source.path();
    const char *const dst = destination.path();
    if (src == nullptr || dst == nullptr || !names_entry(src) || !names_entry(dst)) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    CopyFileCallback copyFile;
    if (options != nullptr) { // then the other record is not looked at, even where this one has no function
        copyFile = CopyFileCallback::bare(options->copyEA);
    } else if (copyEngine != nullptr) {
        copyFile = {copyEngine->copyEA, copyEngine->copyEAArg};
    }
    const bool ofFileOperation = !copyFile && fileOp != nullptr;
    if (ofFileOperation) {
        copyFile = {fileOp->copyEA, fileOp->copyEAArg};
    }
    EaCopyJob job{src, dst, move != 0, fullDir != 0, srcKind, dstKind, copyFile, ofFileOperation, known.seen};
    job.names = known.names;
    job.apart = known.apart;
    job.recordSet = known.recordSet;
    job.srcFd = source.fd();
    job.dstFd = destination.fd();
    return run_with_error(job);
}

int VEXOEACopyInternal(const char *src, const char *dst, int move, int fullDir, int srcKind, int dstKind,
                       VEXOCopyArgsEx *options, VEXOCopyTHRArgs *copyEngine, VEXOCopyArgs *fileOp) {
    return copy_ea(src, dst, move, fullDir, srcKind, dstKind, options, copyEngine, fileOp, {});
}

int VEXOEACopyEx(const char *src, const char *dst, int move, int fullDir, int srcKind, int dstKind, int /*spare*/,
                 int /*spare*/, VEXOCopyBareEAFn copyEA) {
    VEXOCopyArgsEx options{};
    options.copyEA = copyEA;
    return VEXOEACopyInternal(src, dst, move, fullDir, srcKind, dstKind, &options, nullptr, nullptr);
}

int VEXOEACopy(const char *src, const char *dst, int move, int fullDir, int srcKind, int dstKind, int spare,
               int spareToo) {
    return VEXOEACopyEx(src, dst, move, fullDir, srcKind, dstKind, spare, spareToo, nullptr);
}
