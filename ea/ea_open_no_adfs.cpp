// Opens a companion of a file in its "@eaDir", making the directory where the companion may be created.
#include "ea/ea.h"

#include "ea/files/store_file.h"
#include "ea/names/companion.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cerrno>
#include <fcntl.h>

using namespace vexo;

namespace {

// "<dir>/@eaDir" for the current layout; "<dir>/@eaDir/<base>" and first what holds it for the older one.
int make_directory(int nameMode, const char *path) {
    PathBuffer directory;
    if (VEXOEADirPath(nameMode, path, directory.fill(), PathBuffer::kSize) < 0) {
        return -1;
    }
    return VEXOEAMKDir(nameMode == 0 ? 1 : 0, directory.c_str());
}

} // namespace

int VEXOEAOpenNoADFS(int nameMode, const char *path, const char *stream, int oflag) {
    if (path == nullptr || stream == nullptr) {
        errno = ENOENT;
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    PathBuffer companion;
    if (VEXOEAPath(nameMode, path, stream, companion.fill(), PathBuffer::kSize, 0) < 0) {
        return -1;
    }
    if (!can_have_companion(path, oflag, VEXO_SOURCE)) {
        return -1;
    }
    if ((oflag & O_CREAT) != 0 && make_directory(nameMode, path) < 0) {
        return -1;
    }
    const int fd = open_store_file_for_caller(companion.c_str(), oflag);
    archive_after_open(path, fd, oflag, VEXO_SOURCE);
    return fd;
}
