// Opens a companion of a file: one in its "@eaDir", or the AppleDouble file "._<base>" beside it, which is hidden where
// the volume can hide it.
#include "ea/ea.h"

#include "ea/files/store_file.h"
#include "ea/names/companion.h"
#include "platform/sdk.h"
#include "support/dos_attributes.h"
#include "support/fs_type.h"
#include "support/guards.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <linux/msdos_fs.h>
#include <sys/ioctl.h>

using namespace vexo;

namespace {

void hide_on_fat(int fd, const char *companion) {
    uint32_t attributes = 0;
    if (::ioctl(fd, FAT_IOCTL_GET_ATTRIBUTES, &attributes) < 0) {
        VEXO_LOG_ERROR(VEXO_HERE, "Fail to get %s on FAT attributes. %m", companion);
        return;
    }
    if ((attributes & ATTR_HIDDEN) != 0) {
        return;
    }
    attributes |= ATTR_HIDDEN;
    if (::ioctl(fd, FAT_IOCTL_SET_ATTRIBUTES, &attributes) < 0) {
        VEXO_LOG_ERROR(VEXO_HERE, "Fail to set %s on FAT attributes. %m", companion);
    }
}

// Whatever the file was opened for: one that came from elsewhere is to be hidden too. A failure is logged and leaves
// the file open, for it is only what people see that suffers.
void hide(int fd, const char *path, const char *companion) {
    const KeepErrno keep;
    const int type = VEXOGetFSType(path, 0);
    if (type < 0) {
        VEXO_LOG_ERROR(VEXO_HERE, "Fail to get %s FSTYPE.", path);
    } else if (is_type(type, FsType::fat)) {
        hide_on_fat(fd, companion);
    } else if (is_type(type, FsType::exfat) && request_attribute(fd, AttributeRequest::hide_on_exfat) < 0) {
        VEXO_LOG_ERROR(VEXO_HERE, "Fail to set %s on exFAT attributes. %m", companion);
    }
}

int open_apple_double(int nameMode, const char *path, const char *stream, int oflag) {
    if (path == nullptr || stream == nullptr) {
        errno = ENOENT;
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    PathBuffer companion;
    if (VEXOEAPath(nameMode, path, stream, companion.fill(), PathBuffer::kSize, 1) < 0) {
        return -1;
    }
    if (!can_have_companion(path, oflag, VEXO_SOURCE)) {
        return -1;
    }
    // Without O_CREAT first: an existing file is opened, whatever creating flags such as O_EXCL would make of it.
    int fd = open_store_file_for_caller(companion.c_str(), oflag & ~O_CREAT);
    if (fd < 0 && errno == ENOENT) {
        fd = open_store_file_for_caller(companion.c_str(), oflag);
    }
    archive_after_open(path, fd, oflag, VEXO_SOURCE);
    if (fd > 0) {
        hide(fd, path, companion.c_str());
    }
    return fd;
}

} // namespace

int VEXOEAOpen(int nameMode, const char *path, const char *stream, int oflag, int kind) {
    switch (kind) {
    case 0:
        return VEXOEAOpenNoADFS(nameMode, path, stream, oflag);
    case 1:
        return open_apple_double(nameMode, path, stream, oflag);
    default:
        return fail(Error::invalid_argument, VEXO_HERE);
    }
}
