// The record of DOS attributes and creation time as a whole, for the library's copies: which attribute it is, what a
// copy of it comes to, and a new file's in one write.
#include "platform/core.h"

#include "platform/linux/core_attribute_store.h"

#include <cerrno>
#include <string_view>
#include <sys/stat.h>

using namespace vexo;

namespace {

int refuse(int number) {
    errno = number;
    return -1;
}

AttributeFile file_of(const char *path, int fd) {
    return fd >= 0 ? AttributeFile::descriptor(fd) : AttributeFile::path(path);
}

} // namespace

int VLIBCFileIsRecord(const char *name) {
    return name != nullptr && std::string_view(name) == kDosAttributeName ? 1 : 0;
}

int VLIBCFileRecordCarry(const char *src, int srcFd, const char *dst, int dstFd) {
    if ((src == nullptr && srcFd < 0) || (dst == nullptr && dstFd < 0)) {
        return refuse(EFAULT);
    }
    return file_of(dst, dstFd).take_from(file_of(src, srcFd));
}

// The record last, and only where there is none: should somebody have written one to the new file meanwhile, the
// functions that change a record add to it. The times do not change with it.
int VLIBCFileFComplete(int srcFd, int dstFd, mode_t mode, const struct timespec *times, uint32_t attributes) {
    if (dstFd < 0 || times == nullptr) {
        return refuse(dstFd < 0 ? EBADF : EFAULT);
    }
    const uint32_t kind = S_ISDIR(mode) && attributes != 0 ? kDosDirectory : 0;
    DosRecord record{dos_of_platform_word(attributes) | kind, dos_of_time(times[2])};
    DosRecord source;
    if (!record.creationTime) {
        return refuse(EINVAL);
    }
    if (srcFd >= 0 && AttributeFile::descriptor(srcFd).load(source) != 0) {
        return -1;
    }
    record.add(source);
    return ::futimens(dstFd, times) == 0 ? AttributeFile::descriptor(dstFd).store_first(record) : -1;
}
