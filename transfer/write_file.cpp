#include "transfer/write_file.h"

#include <cstddef>
#include <unistd.h>

namespace vexo {

int write_file(int fd, const void *bytes, int64_t length) {
    if (length < 1) {
        return static_cast<int>(length);
    }
    const auto *from = static_cast<const char *>(bytes);
    int64_t done = 0;
    while (done < length) {
        // A write that a signal interrupts fails like any other: the caller decides whether to begin anew.
        const ssize_t written = ::write(fd, from + done, static_cast<size_t>(length - done));
        if (written < 0) {
            return -1;
        }
        done += written;
    }
    return static_cast<int>(done);
}

} // namespace vexo
