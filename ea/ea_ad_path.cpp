// The path of a file's AppleDouble companion, "._<base>" beside it.
#include "ea/ea.h"

#include "ea/names/path_copy.h"
#include "support/report.h"

using namespace vexo;

namespace {

// With "._" in front a name has at most the 255 bytes that volumes allow.
constexpr size_t kLongestBase = 255 - 2;

// The last component, trailing "/" left out.
size_t base_length(std::string_view path) {
    const size_t last = path.find_last_not_of('/');
    if (last == std::string_view::npos) {
        return 0;
    }
    const size_t slash = path.rfind('/', last);
    return last - (slash == std::string_view::npos ? 0 : slash + 1) + 1;
}

} // namespace

int VEXOEAADPath(const char *path, char *out, int outLen) {
    if (out == nullptr || outLen <= 0 || path == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (base_length(path) > kLongestBase) {
        return fail(Error::name_too_long, VEXO_HERE);
    }
    PathCopy copy;
    if (!copy.assign(path)) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    // Cut in silence where it does not fit: callers pass buffers for whole paths.
    TextOut(out, outLen).append(copy.directory()).append("._").append(copy.base());
    return 0;
}
