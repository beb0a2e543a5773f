// The last stage of carrying what belongs to a file: the other entries of its own directory in "@eaDir" (pictures and
// the like that other services keep there), and what a move leaves behind.
#include "ea/carry/routines.h"

#include "ea/carry/store_directory.h"
#include "ea/carry/stream_files.h"
#include "ea/ea.h"
#include "ea/files/store_entry.h"
#include "ea/files/store_file.h"
#include "support/dir.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cerrno>
#include <cstdio>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo {
namespace {

bool is_directory(const char *path, struct stat &status) {
    return look_in_store(path, status) == 0 && S_ISDIR(status.st_mode);
}

// What became of an entry.
enum class Outcome { carried, failed, left_alone };

// The way into a store takes descriptors and memory. That the process has none for the moment says nothing of the entry
// or its volume, so that no move gives up anything for it.
bool lacks_resources(int number) {
    return number == EMFILE || number == ENFILE || number == ENOMEM;
}

Outcome copy_failed(const char *from, const char *to) {
    const int number = errno;
    VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to cp -f %s to %s. %m", from, to);
    return lacks_resources(number) ? Outcome::left_alone : Outcome::failed;
}

Outcome opened_to_all(int result, const char *to) {
    if (result != 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to chmod %s. %m", to);
    }
    return Outcome::carried;
}

Outcome carry_by_callback(const EaCopyJob &job, const char *from, const char *to) {
    const int copied = copy_by_caller(job, from, to);
    if (copied < 0) {
        return copy_failed(from, to);
    }
    if (copied != kOneFile && set_store_mode(to) != 0) {
        if (job.copyFileOfFileOperation) {
            VEXO_LOG_DEBUG(VEXO_EA_COPY_HERE, "Fail to chmod %s. (%m)", to);
        } else {
            VEXO_LOG_DEBUG(VEXO_EA_COPY_HERE, "Failed to chmod %s", to);
        }
    }
    return copied == kOneFile ? Outcome::left_alone : Outcome::carried;
}

Outcome carry_across_devices(const char *from, const char *to) {
    Fd made;
    if (copy_store_file(from, to, &made) != 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to mv %s to %s. %m", from, to);
        return Outcome::left_alone;
    }
    (void)unlink_store_file(from); // what is still there then is removed and reported like every carried entry
    return opened_to_all(::fchmod(made.get(), kStoreMode), to);
}

Outcome carry_entry(const EaCopyJob &job, const char *from, const char *to) {
    if (job.copyFile) {
        return carry_by_callback(job, from, to);
    }
    if (job.move) {
        if (rename_in_store(from, to) == 0) {
            return opened_to_all(set_store_mode(to), to);
        }
        return errno == EXDEV ? carry_across_devices(from, to) : copy_failed(from, to);
    }
    Fd made;
    const int copied = copy_store_file(from, to, &made);
    if (copied < 0) {
        return copy_failed(from, to);
    }
    return made ? opened_to_all(::fchmod(made.get(), kStoreMode), to) : Outcome::carried;
}

bool is_regular(const dirent &entry, const char *path) {
    if (entry.d_type != DT_UNKNOWN) {
        return entry.d_type == DT_REG;
    }
    struct stat status;
    return look_in_store(path, status) == 0 && S_ISREG(status.st_mode);
}

// false: an entry was left alone or not seen, so the directory that holds it stays.
bool carry_entries(const EaCopyJob &job, Dir &directory, const char *from, const char *to) {
    bool complete = true;
    PathBuffer source;
    PathBuffer destination;
    const dirent *entry = nullptr;
    for (errno = 0; (entry = directory.read()) != nullptr; errno = 0) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        source.join(from, name);
        destination.join(to, name);
        if (!is_regular(*entry, source.c_str())) {
            continue;
        }
        if (source.overflowed() || destination.overflowed()) {
            errno = ENAMETOOLONG;
            (void)copy_failed(source.c_str(), destination.c_str());
            complete = false;
            continue;
        }
        if (carry_entry(job, source.c_str(), destination.c_str()) == Outcome::left_alone) {
            complete = false;
            continue;
        }
        if (job.move) { // also after a failed copy: a moved file leaves nothing of its own behind
            (void)remove_source_tree(source.c_str());
        }
    }
    return complete && errno == 0;
}

void remove_source_directory(const EaCopyJob &job, const char *directory) {
    if (job.keepsSourceDirectory()) {
        return;
    }
    const KeepErrors keep;
    (void)remove_source_tree(directory);
    (void)EARemoveEADir(directory);
}

// Whether the directory is also the one that `path` has: then nothing in it needs to go anywhere.
bool is_directory_of(const char *path, const struct stat &directory) {
    const KeepErrors keep;
    PathBuffer own;
    struct stat there;
    return VEXOEADirPath(kPerFileDirectory, path, own.fill(), PathBuffer::kUsable) == 0 &&
           is_directory(own.c_str(), there) && is_one_file(directory, there);
}

int carry_directory(const EaCopyJob &job) {
    if (job.nothingStored || job.noOwnDirectory) {
        return 0;
    }
    PathBuffer from;
    PathBuffer to;
    if (VEXOEADirPath(kPerFileDirectory, job.src, from.fill(), PathBuffer::kUsable) < 0) {
        return -1;
    }
    struct stat own;
    if (!is_directory(from.c_str(), own)) {
        if (job.move && !job.keepsSourceDirectory()) {
            const KeepErrors keep;
            (void)EARemoveEADir(from.c_str());
        }
        return 0;
    }
    if (is_directory_of(job.dst, own)) {
        return 0;
    }
    if (prepare_ea_directory(kPerFileDirectory, job.dst, to) < 0) {
        if (job.move && !lacks_resources(errno)) {
            remove_source_directory(job, from.c_str());
        }
        return -1;
    }
    Dir directory = Dir::of(open_store_directory(from.c_str()));
    if (!directory) {
        set_error(Error::open, VEXO_EA_COPY_HERE);
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to opendir %s, reason = %m.", from.c_str());
        return -1;
    }
    if (carry_entries(job, directory, from.c_str(), to.c_str()) && job.move) {
        remove_source_directory(job, from.c_str());
    }
    return 0;
}

// Types on which a file that was moved to an AppleDouble destination leaves no directory behind.
bool drops_directory(int code) {
    return code == 1 || code == 10 || code == 19;
}

// A move from "@eaDir" into a "._" file: what was converted is removed here.
int leave_ea_directory(const EaCopyJob &job) {
    PathBuffer resource;
    if (VEXOEAPath(kCurrentLayout, job.src, kResourceStream, resource.fill(), PathBuffer::kUsable, kStreamCompanion) <
        0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Fail to generate path of %s.", job.src);
        return -1;
    }
    if (drops_directory(job.srcCode)) {
        PathBuffer stream;
        PathBuffer directory;
        if (VEXOEAPath(kCurrentLayout, job.src, kEaStream, stream.fill(), PathBuffer::kUsable, kStreamCompanion) == 0) {
            (void)unlink_store_file(stream.c_str());
        }
        if (!job.fullDirectory &&
            VEXOEADirPath(kPerFileDirectory, job.src, directory.fill(), PathBuffer::kUsable) == 0) {
            (void)remove_source_tree(directory.c_str());
        }
    }
    if (unlink_store_file(resource.c_str()) != 0 && errno != ENOENT && errno != ENOTDIR) {
        set_error(Error::file_operation, VEXO_EA_COPY_HERE);
    }
    if (job.fullDirectory) {
        return carry_directory(job);
    }
    if (!job.keepsSourceDirectory()) {
        const KeepErrors keep;
        (void)EARemoveEADir(resource.c_str());
    }
    return 0;
}

} // namespace

int carry_rest(const EaCopyJob &job) {
    if (job.streamsStay) { // what belongs to them is still there, and so is whatever else a move would leave behind
        const bool both = job.srcKind() != StoreKind::apple_double && job.dstKind() != StoreKind::apple_double;
        return both || job.fullDirectory ? carry_directory(job) : 0;
    }
    const bool appleDouble = job.srcKind() == StoreKind::apple_double || job.dstKind() == StoreKind::apple_double;
    if (!appleDouble) {
        return carry_directory(job);
    }
    if (job.move && job.srcKind() == StoreKind::ea_directory && job.dstKind() == StoreKind::apple_double) {
        return leave_ea_directory(job);
    }
    return job.fullDirectory ? carry_directory(job) : 0;
}

} // namespace vexo
