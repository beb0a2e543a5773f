// Moving what belongs to a file after the file itself was renamed: its streams in "@eaDir", its directory in there, its
// "._" file.
#include "ea/ea.h"

#include "ea/files/store_entry.h"
#include "ea/names/entry.h"
#include "ea/names/store.h"
#include "platform/sdk.h"
#include "support/guards.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cerrno>
#include <cstdio>
#include <optional>
#include <string_view>
#include <sys/stat.h>

using namespace vexo;

namespace {

bool missing(const char *path) {
    struct stat status;
    return look_in_store(path, status) != 0 && says_absent(errno);
}

// Whether a file stands at `path`, and is another than the one at `other`.
bool occupied_by_another(const char *path, const char *other) {
    struct stat there;
    struct stat own;
    if (look_in_store(path, there) != 0) {
        return false;
    }
    return look_in_store(other, own) != 0 || there.st_dev != own.st_dev || there.st_ino != own.st_ino;
}

int make_parent(const PathBuffer &path) {
    const size_t slash = path.view().rfind('/');
    if (slash == std::string_view::npos) {
        return -1;
    }
    const PathBuffer parent(path.view().substr(0, slash));
    struct stat status;
    if (look_in_store(parent.c_str(), status) != 0 || !S_ISDIR(status.st_mode)) {
        return VEXOEAMKDir(0, parent.c_str());
    }
    const KeepErrors keep; // who may not make one can still use the one that is there
    (void)VEXOEAMKDir(0, parent.c_str());
    return 0;
}

// "mv" puts what it moves into a directory that stands in its place, and follows a link to one. Leaves errno alone.
bool mv_would_put_it_there(const char *to) {
    const KeepErrno keep;
    struct stat there;
    return look_in_store(to, there) == 0 ? S_ISREG(there.st_mode) : says_absent(errno);
}

// Another process may have taken the item away meanwhile: then there is nothing left to move.
int rename_across_devices(const char *from, const char *to) {
    if (rename_in_store(from, to) == 0 || errno == ENOENT) {
        return 0;
    }
    if (errno != EXDEV || !mv_would_put_it_there(to)) {
        return fail(Error::rename_ea, VEXO_HERE);
    }
    const KeepErrno keep;
    return VLIBCExec("/bin/mv", from, to, nullptr) == 0 ? 0 : fail(Error::rename_ea, VEXO_HERE);
}

// The last steps of moving an item: into its place, and the "@eaDir" that is left behind goes when it is empty.
int put_in_place(const PathBuffer &from, const PathBuffer &to) {
    if (rename_across_devices(from.c_str(), to.c_str()) < 0) {
        return -1;
    }
    const KeepErrors keep;
    (void)EARemoveEADir(from.c_str());
    return 0;
}

int move_stream(const char *oldPath, const char *newPath, const char *name) {
    if (name == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    PathBuffer from;
    PathBuffer to;
    if (VEXOEAPath(kCurrentLayout, oldPath, name, from.fill(), PathBuffer::kUsable, kStreamCompanion) < 0 ||
        VEXOEAPath(kCurrentLayout, newPath, name, to.fill(), PathBuffer::kUsable, kStreamCompanion) < 0) {
        return -1;
    }
    from.adopt();
    to.adopt();
    if (missing(from.c_str())) {
        return 0;
    }
    return make_parent(to) < 0 ? -1 : put_in_place(from, to);
}

int move_directory(const char *oldPath, const char *newPath) {
    PathBuffer from;
    PathBuffer to;
    if (VEXOEADirPath(kPerFileDirectory, oldPath, from.fill(), PathBuffer::kUsable) < 0 ||
        VEXOEADirPath(kPerFileDirectory, newPath, to.fill(), PathBuffer::kUsable) < 0) {
        return -1;
    }
    from.adopt();
    to.adopt();
    if (missing(from.c_str())) {
        return 0;
    }
    if (missing(to.c_str())) {
        return make_parent(to) < 0 ? -1 : put_in_place(from, to);
    }
    if (occupied_by_another(to.c_str(), from.c_str()) && EARemove(kPerFileDirectory, newPath) < 0) {
        return -1;
    }
    return put_in_place(from, to);
}

// Never a failure: the "._" file is optional, and a stale one that cannot go keeps its place.
void move_apple_double(const char *oldPath, const char *newPath) {
    PathBuffer from;
    PathBuffer to;
    if (VEXOEAADPath(oldPath, from.fill(), PathBuffer::kUsable) < 0 || missing(from.c_str()) ||
        VEXOEAADPath(newPath, to.fill(), PathBuffer::kUsable) < 0) {
        return;
    }
    if (occupied_by_another(to.c_str(), from.c_str()) && ::remove(to.c_str()) != 0) {
        return;
    }
    if (rename_in_store(from.c_str(), to.c_str()) == 0) {
        (void)move_directory(oldPath, newPath);
    }
}

// The given kind, or the one of the volume that holds the new path; nothing, logged, when that cannot be told.
std::optional<int> resolve_kind(int fsKind, const char *newPath) {
    if (fsKind != -1) {
        return fsKind;
    }
    const int kind = VEXOGetFSType(newPath, 1);
    if (kind == -1) {
        VEXO_LOG_ERROR(VEXO_HERE, "Fail to detect FileSystem type. Need ABSOLUTE PATH.");
        return std::nullopt;
    }
    return kind;
}

// The caller sees the result of the move, not of this.
void set_archive(const char *path) {
    const KeepErrors keep;
    if (EASetSmbArchive(path) < 0) {
        VEXO_LOG_DEBUG(VEXO_HERE, "Failed to set smb archive %s", path);
    }
}

} // namespace

int VEXOEARename(const char *oldPath, const char *newPath, int fsKind, int /*reserved*/) {
    if (oldPath == nullptr || newPath == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const std::optional<int> kind = resolve_kind(fsKind, newPath);
    if (!kind) {
        return -1;
    }
    if (store_kind(*kind) == StoreKind::other) {
        return 0;
    }
    if (!names_entry(oldPath) || !names_entry(newPath)) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (store_kind(*kind) == StoreKind::apple_double) {
        move_apple_double(oldPath, newPath);
        return 0;
    }
    // Each item goes whatever became of the one before.
    const int resource = move_stream(oldPath, newPath, kResourceStream);
    const int attributes = move_stream(oldPath, newPath, kEaStream);
    const int directory = move_directory(oldPath, newPath);
    set_archive(newPath);
    return resource + attributes + directory;
}

int VEXOEARenameByStream(const char *oldPath, const char *newPath, int fsKind, const char *streamName) {
    if (oldPath == nullptr || newPath == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const std::optional<int> kind = resolve_kind(fsKind, newPath);
    if (!kind) {
        return -1;
    }
    const bool movesStream = keeps_streams(store_kind(*kind));
    if (movesStream && (!names_entry(oldPath) || !names_entry(newPath))) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const int result = movesStream ? move_stream(oldPath, newPath, streamName) : 0;
    set_archive(newPath);
    return result;
}
