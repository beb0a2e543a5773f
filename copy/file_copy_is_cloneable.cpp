// Whether a file or a directory can be cloned into a directory, for callers that decide whether to ask for a clone.
#include "copy/copy.h"

#include "platform/sdk.h"
#include "support/errno_table.h"
#include "support/fs_type.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cerrno>
#include <cstdlib>
#include <sys/stat.h>

using namespace vexo;

namespace {

enum Answer : int {
    cloneable = 0,
    lookUpFailed = -1,
    badPath = -2,
    notBtrfs = -3,
    otherVolume = -4,
    nodatacowDiffers = -5,
    compressionDiffers = -6,
    shareEncrypted = -7,
};

enum Flag : uint32_t {
    ignoreNodatacow = 1,
    ignoreCompression = 2,
};

// The directories whose settings are compared: what is cloned lies in one, its clone in the other.
struct Directories {
    PathBuffer source;
    PathBuffer destination;
};

bool resolve(const char *path, PathBuffer *resolved) {
    if (::realpath(path, resolved->fill()) == nullptr) {
        return false;
    }
    resolved->adopt();
    return true;
}

// Reports.
bool look_at(const PathBuffer &path, struct stat *status) {
    if (::stat(path.c_str(), status) == 0) {
        return true;
    }
    if (const std::optional<Error> error = find_error(kStorageErrors, errno)) {
        set_error(*error, VEXO_HERE);
    }
    VEXO_LOG_ERROR(VEXO_HERE, "failed to stat path [%s], reason=[(%d)%m]", path.c_str(), errno);
    return false;
}

// The parent of a resolved path.
void cut_to_parent(PathBuffer *path) {
    const size_t slash = path->view().rfind('/');
    path->cut(slash == 0 ? 1 : slash);
}

Answer find_directories(const char *src, const char *dst, Directories *directories) {
    if (!resolve(src, &directories->source) || !resolve(dst, &directories->destination)) {
        return badPath;
    }
    struct stat source = {};
    struct stat destination = {};
    if (!look_at(directories->source, &source) || !look_at(directories->destination, &destination)) {
        return lookUpFailed;
    }
    if (S_ISREG(source.st_mode)) {
        cut_to_parent(&directories->source);
    } else if (!S_ISDIR(source.st_mode)) {
        return badPath;
    }
    return S_ISDIR(destination.st_mode) ? cloneable : badPath;
}

Answer check_types(const Directories &directories) {
    const bool bothBtrfs = is_type(VEXOGetFSType(directories.source.c_str(), 0), FsType::btrfs) &&
                           is_type(VEXOGetFSType(directories.destination.c_str(), 0), FsType::btrfs);
    return bothBtrfs ? cloneable : notBtrfs;
}

// A path in no shared folder counts as not encrypted; one whose share cannot be told is refused.
Answer check_encryption(const PathBuffer &directory) {
    PathBuffer name;
    PathBuffer sharePath;
    if (VEXOShareNamePathGet(directory.c_str(), name.fill(), PathBuffer::kSize, sharePath.fill(), PathBuffer::kSize) <
        0) {
        const Error error = last_error();
        return error == Error::invalid_argument || error == Error::share_missing ? badPath : cloneable;
    }
    VEXOShare *share = nullptr;
    if (VEXOShareGet(name.c_str(), &share) < 0) {
        return badPath;
    }
    int encrypted = 0;
    const int asked = VLIBShareIsEncryptionGet(share, &encrypted);
    VEXOShareFree(share);
    if (asked < 0) {
        return badPath;
    }
    return encrypted != 0 ? shareEncrypted : cloneable;
}

Answer check_volume(const Directories &directories) {
    PathBuffer source;
    PathBuffer destination;
    if (VEXOFSMntPathGet(directories.source.c_str(), source.fill(), PathBuffer::kSize) < 0 ||
        VEXOFSMntPathGet(directories.destination.c_str(), destination.fill(), PathBuffer::kSize) < 0) {
        return lookUpFailed;
    }
    source.adopt();
    destination.adopt();
    return source.view() == destination.view() ? cloneable : otherVolume;
}

// A setting of both directories, which a clone keeps from its source.
Answer check_setting(const Directories &directories, int (*setting)(const char *path), Answer differs) {
    const int source = setting(directories.source.c_str());
    if (source < 0) {
        return lookUpFailed;
    }
    const int destination = setting(directories.destination.c_str());
    if (destination < 0) {
        return lookUpFailed;
    }
    return source == destination ? cloneable : differs;
}

} // namespace

int VEXOFileCopyIsCloneable(const char *src, const char *dst, uint32_t flags) {
    Directories directories;
    Answer answer = find_directories(src, dst, &directories);
    if (answer == cloneable) {
        answer = check_types(directories);
    }
    if (answer == cloneable) {
        answer = check_encryption(directories.source);
    }
    if (answer == cloneable) {
        answer = check_encryption(directories.destination);
    }
    if (answer == cloneable) {
        answer = check_volume(directories);
    }
    if (answer == cloneable && (flags & ignoreNodatacow) == 0) {
        answer = check_setting(directories, VLIBFSGetBTRFSNodatacow, nodatacowDiffers);
    }
    if (answer == cloneable && (flags & ignoreCompression) == 0) {
        answer = check_setting(directories, VLIBFSGetBTRFSCompression, compressionDiffers);
    }
    return answer;
}
