// Questions about a directory: is it one, how many bytes are in its files.
#include "platform/core.h"

#include <cerrno>
#include <cstdint>
#include <fts.h>
#include <memory>
#include <sys/stat.h>

namespace vexo {
namespace {

struct CloseWalk {
    void operator()(FTS *walk) const { ::fts_close(walk); }
};

// Adds one entry of the walk. 0, or the errno that makes the sum worthless.
int add_entry(const FTSENT &entry, int64_t &bytes) {
    switch (entry.fts_info) {
    case FTS_F:
        return __builtin_add_overflow(bytes, entry.fts_statp->st_size, &bytes) ? EOVERFLOW : 0;
    case FTS_DNR:
    case FTS_ERR:
    case FTS_NS:
        // What vanished since its name was read holds nothing any more; the tree itself has to be there.
        return entry.fts_errno == ENOENT && entry.fts_level > FTS_ROOTLEVEL ? 0 : entry.fts_errno;
    default:
        return 0; // directories, links (never followed), devices and pipes hold no bytes to copy
    }
}

} // namespace
} // namespace vexo

using namespace vexo;

int VLIBCFileCheckDir(const char *path) {
    struct stat found {};
    return path != nullptr && ::stat(path, &found) == 0 && S_ISDIR(found.st_mode) ? 1 : 0;
}

int64_t VLIBGetFullDirSize(const char *path) {
    if (path == nullptr || *path == '\0') {
        errno = path == nullptr ? EINVAL : ENOENT;
        return -1;
    }
    // One directory is open at a time, however deep the tree is, and the working directory stays.
    char *const roots[] = {const_cast<char *>(path), nullptr};
    const std::unique_ptr<FTS, CloseWalk> walk(::fts_open(roots, FTS_PHYSICAL | FTS_NOCHDIR, nullptr));
    if (walk == nullptr) {
        return -1;
    }
    int64_t bytes = 0;
    errno = 0;
    while (const FTSENT *entry = ::fts_read(walk.get())) {
        if (const int error = add_entry(*entry, bytes); error != 0) {
            errno = error;
            return -1;
        }
        errno = 0;
    }
    return errno == 0 ? bytes : -1; // the end, or a walk that could not go on
}
