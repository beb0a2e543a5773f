// The volume that a path is on, by the text of the path: what is returned is always a piece of what was given, so that
// "<volume>/<rest>" is the path again.
//
// A volume of a stock machine is a directory at the top whose name begins with "volume", there or not, as the callers
// take it everywhere; for any other path it is the lowest directory on the way to it that something is mounted at, in
// the end "/". So every path from the root is on a volume.
#include "platform/sdk.h"

#include "platform/linux/text_file.h"
#include "support/guards.h"
#include "support/path_buffer.h"

#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>

namespace vexo {
namespace {

std::string_view without_slashes_in_front(std::string_view text) {
    while (text.starts_with('/')) {
        text.remove_prefix(1);
    }
    return text;
}
std::string_view without_slashes_behind(std::string_view text) {
    while (text.ends_with('/')) {
        text.remove_suffix(1);
    }
    return text;
}

bool is_mount_point(const char *path) {
    struct statx found {};
    return ::statx(AT_FDCWD, path, 0, STATX_TYPE, &found) == 0 && (found.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 &&
           S_ISDIR(found.stx_mode);
}

// How much of the path is the volume; 0 for "/".
size_t length_of_volume(std::string_view path) {
    const size_t top = path.size() - without_slashes_in_front(path).size();
    if (tail(path, top).starts_with("volume")) {
        const size_t end = path.find('/', top);
        return end == std::string_view::npos ? path.size() : end;
    }
    const KeepErrno keep;
    PathBuffer directory(path);
    for (size_t length = without_slashes_behind(path).size(); length > 0;) {
        directory.cut(length);
        if (is_mount_point(directory.c_str())) {
            return length;
        }
        const size_t slash = path.substr(0, length).rfind('/');
        length = without_slashes_behind(path.substr(0, slash)).size();
    }
    return 0;
}

} // namespace
} // namespace vexo

using namespace vexo;

int VolumePathParseEx(const char *path, char *volume, int volumeSize, char *rest, int restSize) {
    if (path == nullptr || volume == nullptr || rest == nullptr || *path != '/') {
        errno = EINVAL;
        return -1;
    }
    const std::string_view text(path);
    if (text.size() >= PathBuffer::kSize) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const size_t length = length_of_volume(text);
    return put_text(length == 0 ? "/" : text.substr(0, length), volume, volumeSize) &&
                   put_text(without_slashes_in_front(tail(text, length)), rest, restSize)
               ? 0
               : -1;
}
