// The path of the directory that holds the companions of a file, or of the file's own directory in it.
#include "ea/ea.h"

#include "ea/names/path_copy.h"
#include "support/report.h"

#include <cerrno>

using namespace vexo;

int VEXOEADirPath(int dirOnly, const char *path, char *out, int outLen) {
    if (path == nullptr || out == nullptr || *path == '\0') {
        errno = ENOENT;
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    PathCopy copy;
    if (!copy.assign(path)) {
        return fail(Error::out_of_memory, VEXO_HERE);
    }
    // The length counts as given and as if the base were written, whatever is: a path that is refused in one form is
    // refused in the other.
    constexpr size_t kAdded = sizeof("@eaDir/") - 1;
    const size_t needed = copy.given_length() + kAdded;
    if (needed > PathBuffer::kUsable || outLen < static_cast<int>(needed)) {
        errno = ENAMETOOLONG;
        return fail(Error::name_too_long, VEXO_HERE);
    }
    TextOut text(out, outLen);
    text.append(copy.directory()).append("@eaDir");
    if (dirOnly == 0) {
        text.append("/").append(copy.base());
    }
    return 0;
}
