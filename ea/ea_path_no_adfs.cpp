// The path of a companion in "@eaDir": the current layout, the older one with a directory a file, and a file of the
// directory's own.
#include "ea/ea.h"

#include "ea/names/path_copy.h"
#include "ea/names/short_name.h"
#include "ea/names/stream_path.h"
#include "support/report.h"

#include <cerrno>
#include <cstring>

using namespace vexo;

namespace {

constexpr int kCurrentLayout = 1;

int refuse_length() {
    errno = ENAMETOOLONG;
    return fail(Error::name_too_long, VEXO_HERE);
}

bool fits(size_t length, int outLen) {
    return length <= PathBuffer::kSize && outLen >= 0 && length <= static_cast<size_t>(outLen);
}

// "<dir>/@eaDir/<base>/<stream>" or "<dir>/@eaDir/<stream>".
int older_path(int nameMode, const PathCopy &path, const char *stream, char *out, int outLen) {
    if (!fits(path.length() + std::strlen(stream) + sizeof("@eaDir/") - 1 + sizeof("/") - 1, outLen)) {
        return refuse_length();
    }
    if (VEXOEADirPath(nameMode, path.c_str(), out, outLen) != 0) {
        return -1;
    }
    TextOut::behind(out, outLen).append("/").append(stream);
    return 0;
}

// "<dir>/@eaDir/<base'>@<stream>". `fd`: the file, where it is open.
int current_path(PathCopy &path, int fd, const char *stream, char *out, int outLen) {
    if (!fits(path.length() + std::strlen(stream) + sizeof("@eaDir/") - 1 + sizeof("@"), outLen)) {
        return refuse_length();
    }
    const std::span<char> base = path.base_bytes();
    const size_t shortened = shorten_base(base, base_limit_of({path.c_str(), fd}));
    path.cut(path.length() - (base.size() - shortened));
    const std::string_view name{base.data(), shortened};
    if (VEXOEADirPath(1, path.c_str(), out, outLen) != 0) {
        return -1;
    }
    TextOut::behind(out, outLen).append("/").append(name).append("@").append(stream);
    return 0;
}

} // namespace

bool vexo::make_stream_path(const FileRef &file, const char *stream, PathBuffer &out, int room) {
    PathCopy copy;
    if (*file.path() == '\0' || !copy.assign(file.path())) {
        set_error(*file.path() == '\0' ? Error::invalid_argument : Error::out_of_memory, VEXO_HERE);
        return false;
    }
    if (current_path(copy, file.fd(), stream, out.fill(), room) != 0) {
        return false;
    }
    out.adopt();
    return true;
}

int VEXOEAPathNoADFS(int nameMode, const char *path, const char *stream, char *out, int outLen) {
    if (path == nullptr || stream == nullptr || *path == '\0') {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    PathCopy copy;
    if (!copy.assign(path)) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    return nameMode == kCurrentLayout ? current_path(copy, -1, stream, out, outLen)
                                      : older_path(nameMode, copy, stream, out, outLen);
}
