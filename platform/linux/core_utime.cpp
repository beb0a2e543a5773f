// Setting the three times of a file.
#include "platform/core.h"

#include "platform/linux/core_attribute_store.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

using namespace vexo;

namespace {

int refuse(int number) {
    errno = number;
    return -1;
}

bool is_count(int count) {
    return count == 2 || count == 3;
}

// The third of the times, where there is one.
int set_creation_time(const AttributeFile &file, int count, const struct timespec *times) {
    if (count == 2 || times[2].tv_nsec == UTIME_OMIT) {
        return 0;
    }
    timespec creation = times[2];
    if (creation.tv_nsec == UTIME_NOW) {
        ::clock_gettime(CLOCK_REALTIME, &creation);
    }
    const auto dosTime = dos_of_time(creation);
    return dosTime ? file.store_creation_time(*dosTime) : refuse(EINVAL);
}

} // namespace

// Access and modification time first: they are set also where the volume has no place for the third.
int VLIBCFileUTime(const char *path, int count, const struct timespec *times) {
    if (path == nullptr || times == nullptr || !is_count(count)) {
        return refuse(path == nullptr || times == nullptr ? EFAULT : EINVAL);
    }
    return ::utimensat(AT_FDCWD, path, times, 0) == 0 ? set_creation_time(AttributeFile::path(path), count, times) : -1;
}

int VLIBCFileFUTime(int fd, int count, const struct timespec *times) {
    if (fd < 0 || times == nullptr || !is_count(count)) {
        return refuse(fd < 0 ? EBADF : times == nullptr ? EFAULT : EINVAL);
    }
    return ::futimens(fd, times) == 0 ? set_creation_time(AttributeFile::descriptor(fd), count, times) : -1;
}
