// Removing what belongs to a file that is being deleted: its "._" file, its streams in "@eaDir", its directory in
// there, and an "@eaDir" that was left empty.
#include "ea/ea.h"

#include "ea/files/remove_tree.h"
#include "ea/files/store_entry.h"
#include "ea/files/store_file.h"
#include "ea/names/entry.h"
#include "ea/names/store.h"
#include "platform/sdk.h"
#include "support/dir.h"
#include "support/guards.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

using namespace vexo;

namespace {

// Set for the duration of VEXOEARemoveWithoutEAStream. Process-wide, so its callers serialise it with VEXOEARemove.
constinit bool keepEaStream = false;

class KeepEaStream {
  public:
    KeepEaStream() { keepEaStream = true; }
    KeepEaStream(const KeepEaStream &) = delete;
    KeepEaStream &operator=(const KeepEaStream &) = delete;
    ~KeepEaStream() { keepEaStream = false; }
};

// A cover beside nothing else does not make an "@eaDir" worth keeping.
constexpr char kCover[] = ".cover";

bool exists(const char *path) {
    struct stat status;
    return ::lstat(path, &status) == 0;
}

std::string_view last_component(std::string_view path) {
    if (const size_t slash = path.rfind('/'); slash != std::string_view::npos) {
        path.remove_prefix(slash + 1);
    }
    return path;
}

// The directory whose volume decides where the metadata of `path` lie. The path itself may be gone already.
bool find_parent(const char *path, PathBuffer &parent) {
    const std::string_view text = path;
    const size_t slash = text.rfind('/');
    if (slash != std::string_view::npos) {
        parent.append(text.substr(0, slash == 0 ? 1 : slash));
        return true;
    }
    if (exists(path)) {
        parent.append(text);
        return true;
    }
    if (::getcwd(parent.fill(), PathBuffer::kSize) == nullptr) {
        VEXO_LOG_ERROR(VEXO_HERE, "Fail to getcwd. %m");
        return false;
    }
    parent.adopt();
    return true;
}

// The type code of the volume that holds `path`, or a failure with its error set.
int look_up_kind(const char *path, int *kind) {
    PathBuffer parent;
    if (!find_parent(path, parent)) {
        return -1;
    }
    if (parent.overflowed()) {
        return fail(Error::name_too_long, VEXO_HERE);
    }
    *kind = VEXOGetFSType(parent.c_str(), 1);
    return *kind == -1 ? fail(Error::file_operation, VEXO_HERE) : 0;
}

int remove_apple_double(const char *path) {
    PathBuffer companion;
    if (VEXOEAADPath(path, companion.fill(), PathBuffer::kUsable) < 0) {
        // A name that leaves no room for the prefix cannot have such a file.
        return last_error() == Error::name_too_long ? 0 : -1;
    }
    if (unlink_store_file(companion.c_str()) != 0 && errno != ENOENT) {
        return fail(Error::remove, VEXO_HERE);
    }
    const KeepErrors keep;
    (void)EARemove(kPerFileDirectory, path);
    return 0;
}

int remove_streams_and_directory(const char *path) {
    const int directory = EARemove(kPerFileDirectory, path);
    const int streams = EARemove(kSharedDirectory, path);
    const KeepErrno keep;
    if (EASetSmbArchive(path) < 0) {
        VEXO_LOG_DEBUG(VEXO_HERE, "Failed to set smb archive: %s", std::strerror(errno));
    }
    return directory < 0 || streams < 0 ? -1 : 0;
}

// Unlinks one stream file of `path` and leaves its path in `stream`. One that is not there is no failure.
bool unlink_stream(const char *path, const char *name, PathBuffer &stream) {
    if (VEXOEAPath(kCurrentLayout, path, name, stream.fill(), PathBuffer::kUsable, kStreamCompanion) < 0) {
        return false;
    }
    return unlink_store_file(stream.c_str()) == 0 || says_absent(errno);
}

// Leaves the path of the last stream it looked at.
int unlink_streams(const char *path, PathBuffer &stream) {
    bool removed = unlink_stream(path, kResourceStream, stream);
    int number = errno;
    if (!keepEaStream) {
        if (!unlink_stream(path, kEaStream, stream)) {
            removed = false;
            number = errno;
        }
    }
    if (removed) {
        return 0;
    }
    errno = number;
    return fail(number == ENAMETOOLONG ? Error::name_too_long : Error::remove, VEXO_HERE);
}

// Whether nothing in the directory speaks against its removal.
bool holds_only_cover(Dir &directory) {
    errno = 0;
    while (const dirent *entry = directory.read()) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        struct stat status;
        if (name != kCover || ::fstatat(::dirfd(directory.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(status.st_mode)) {
            return false;
        }
        errno = 0;
    }
    return errno == 0;
}

} // namespace

int VEXOEARemove(const char *path, int fsKind) {
    if (path == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (fsKind == -1 && look_up_kind(path, &fsKind) < 0) {
        return -1;
    }
    const StoreKind kind = store_kind(fsKind);
    // The native kind keeps it in the file, the others keep nothing.
    if (kind == StoreKind::native_xattr || kind == StoreKind::other) {
        return 0;
    }
    if (!names_entry(path)) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    return kind == StoreKind::apple_double ? remove_apple_double(path) : remove_streams_and_directory(path);
}

int VEXOEARemoveWithoutEAStream(const char *path, int fsKind) {
    const KeepEaStream keep;
    return VEXOEARemove(path, fsKind);
}

int EARemove(int which, const char *path) {
    PathBuffer directory;
    if (VEXOEADirPath(which, path, directory.fill(), PathBuffer::kUsable) < 0) {
        return -1;
    }
    if (!names_entry(path)) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    PathBuffer stream;
    struct stat status;
    if (look_in_store(directory.c_str(), status) == 0) {
        if (which == kPerFileDirectory && remove_tree(directory.c_str(), VEXO_SOURCE) < 0) {
            VEXO_LOG_ERROR(VEXO_HERE, "Failed to rm -rf %s. %m", directory.c_str());
            return fail(Error::remove, VEXO_HERE);
        }
        if (which == kSharedDirectory && unlink_streams(path, stream) < 0) {
            return -1;
        }
    } else if (!says_absent(errno)) { // what cannot be looked at may be there
        return fail(Error::remove, VEXO_HERE);
    }
    if (last_component(path) != kEaDirectoryName && stream.c_str()[0] != '\0') {
        const KeepErrno keep;
        (void)EARemoveEADir(stream.c_str());
    }
    return 0;
}

int EARemoveEADir(const char *path) {
    if (path == nullptr) {
        return -1;
    }
    const char *found = std::strstr(path, kEaDirectoryName);
    if (found == nullptr) {
        return -1;
    }
    const PathBuffer directory({path, static_cast<size_t>(found - path) + sizeof kEaDirectoryName - 1});
    Dir stream = Dir::of(open_store_directory(directory.c_str()));
    if (!stream) {
        if (errno == ENOENT) {
            return 0;
        }
        VEXO_LOG_ERROR(VEXO_HERE, "Failed to opendir %s, reason=%m.\n", directory.c_str());
        return -1;
    }
    if (!holds_only_cover(stream)) {
        return -1;
    }
    (void)::unlinkat(::dirfd(stream.get()), kCover, 0);
    stream.close();
    return remove_store_directory(directory.c_str());
}
