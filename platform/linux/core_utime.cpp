// Setting the three times of a file.
#include "platform/core.h"

#include "platform/linux/core_attribute_store.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

using namespace vexo;

int VLIBCFileUTime(const char *path, int count, const struct timespec *times) {
    if (path == nullptr || times == nullptr || (count != 2 && count != 3)) {
        errno = path == nullptr || times == nullptr ? EFAULT : EINVAL;
        return -1;
    }
    // Access and modification time first: they are set also where the volume has no place for the third.
    if (::utimensat(AT_FDCWD, path, times, 0) != 0) {
        return -1;
    }
    if (count == 2 || times[2].tv_nsec == UTIME_OMIT) {
        return 0;
    }
    timespec creation = times[2];
    if (creation.tv_nsec == UTIME_NOW) {
        ::clock_gettime(CLOCK_REALTIME, &creation);
    }
    const auto dosTime = dos_of_time(creation);
    if (!dosTime) {
        errno = EINVAL;
        return -1;
    }
    return AttributeFile::path(path).store_creation_time(*dosTime);
}
