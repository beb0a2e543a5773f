// Writes everything, however many calls it takes.
#include "copy/copy.h"

#include <cstddef>
#include <unistd.h>

int VEXOWriteFileFd(int fd, const void *buf, int64_t len) {
    const auto *bytes = static_cast<const char *>(buf);
    for (int64_t done = 0; done < len;) {
        // A write that a signal interrupts fails like any other: the caller decides whether to begin anew.
        const ssize_t written = ::write(fd, bytes + done, static_cast<size_t>(len - done));
        if (written < 0) {
            return -1;
        }
        done += written;
    }
    return static_cast<int>(len);
}
