#include "ea/carry/store_directory.h"

#include "ea/carry/job.h"
#include "ea/ea.h"
#include "ea/files/remove_tree.h"
#include "ea/files/store_entry.h"
#include "support/keep_errno.h"
#include "support/report.h"

#include <cerrno>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo {
namespace {

// A path of at most so many bytes has room behind it for whatever a companion's path adds.
constexpr size_t kSafeLength = PathBuffer::kUsable - 64;

} // namespace

bool lacks_ea_directory(std::string_view directory) {
    const KeepErrno keep;
    PathBuffer store;
    store.join(directory, "@eaDir");
    return !store.overflowed() && ::access(store.c_str(), F_OK) != 0 && errno == ENOENT;
}

bool has_no_ea_directory(const char *path, StoreSeen seen) {
    const std::string_view name = path;
    const size_t slash = name.rfind('/');
    // Paths that a companion's path may be refused for take the long way, and so does what is no plain name.
    if (slash == std::string_view::npos || slash + 1 == name.size() || name.size() > kSafeLength) {
        return false;
    }
    return seen == StoreSeen::neither || (seen == StoreSeen::unknown && lacks_ea_directory(name.substr(0, slash)));
}

int prepare_ea_directory(int which, const char *path, PathBuffer &directory) {
    if (VEXOEADirPath(which, path, directory.fill(), PathBuffer::kUsable) < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to get EA path of %s.\n", path);
        return -1;
    }
    if (which == kPerFileDirectory && remove_source_tree(directory.c_str()) < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to rm -rf %s.\n", directory.c_str());
        return -1;
    }
    const int number = errno;
    const int made = VEXOEAMKDir(which == kPerFileDirectory ? 1 : 0, directory.c_str());
    if (made == 0) {
        errno = number; // not what a volume without ACLs answered
    }
    return made;
}

int prepare_shared_directory(const char *path) {
    PathBuffer directory;
    return prepare_ea_directory(kSharedDirectory, path, directory);
}

int remove_source_tree(const char *path) {
    struct stat status;
    const bool seen = look_in_store(path, status) == 0;
    if (!seen && says_absent(errno)) {
        return 0;
    }
    if (remove_tree<kEaCopySource>(path) < 0) {
        if (!seen && says_absent(errno)) { // what could not be looked at is not there
            return 0;
        }
        set_error(Error::remove, VEXO_EA_COPY_HERE);
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to rm -rf %s. %m", path);
        return -1;
    }
    return 0;
}

} // namespace vexo
