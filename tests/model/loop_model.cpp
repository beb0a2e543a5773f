#include "tests/model/loop_model.h"

#include "tests/model/harness.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace model {
namespace {

constexpr int64_t kMost = 8388608;

int fails(uint32_t code, const std::string &source) {
    setError(code, source);
    return -1;
}

// What either side can fail with.
uint32_t codeOfEither(int number) {
    switch (number) {
    case EIO:
    case EBADF:
        return 0x0600;
    case ENXIO:
        return 0x6C00;
    case EFAULT:
        return 0x0300;
    case EHOSTDOWN:
        return 0x1100;
    default:
        return 0;
    }
}

int readFails(int number, const std::string &source) {
    if (const uint32_t code = codeOfEither(number); code != 0) {
        return fails(code, source);
    }
    logLine(LOG_ERR, source, "Unable to readfile, errno=%d(%s)", number, std::strerror(number));
    return fails(0x8000, source);
}

int writeFails(int number, const std::string &source) {
    const uint32_t code = number == EFBIG    ? 0xAA00
                          : number == ENOSPC ? 0x2900
                          : number == EDQUOT ? 0x2400
                                             : codeOfEither(number);
    if (code != 0) {
        return fails(code, source);
    }
    logLine(LOG_ERR, source, "Unable to writefile, errno=%d(%s)", number, std::strerror(number));
    return fails(0x8000, source);
}

// The blocks of one extent; the offset goes on.
int copyBlocks(int srcFd, int dstFd, int64_t remaining, int64_t &offset, int64_t &lastBytes, int64_t &readSize,
               const LoopCallbacks &callbacks, const std::string &source) {
    std::vector<char> buffer;
    while (remaining > 0) {
        if (callbacks.isCancel && callbacks.isCancel() != 0) {
            return fails(0xA600, source);
        }
        if (callbacks.getReadSize) {
            readSize = callbacks.getReadSize(lastBytes, offset);
            if (readSize < 1 || readSize > kMost) {
                readSize = kMost;
            }
        }
        buffer.resize(static_cast<size_t>(std::min(readSize, remaining)));
        const int64_t n = ::read(srcFd, buffer.data(), buffer.size());
        if (n < 0) {
            return readFails(errno, source);
        }
        if (n == 0) {
            return fails(0x0A00, source);
        }
        for (int64_t done = 0; done < n;) {
            const int64_t w = ::write(dstFd, buffer.data() + done, static_cast<size_t>(n - done));
            if (w < 0) {
                return writeFails(errno, source);
            }
            done += w;
        }
        remaining -= n;
        offset += n;
        if (callbacks.progress) {
            callbacks.progress(n, offset);
        }
        lastBytes = n;
    }
    return 0;
}

} // namespace

int copyDescriptor(int srcFd, int dstFd, int64_t size, const LoopCallbacks &callbacks, const std::string &source) {
    if (srcFd < 0 || dstFd < 0) {
        return fails(0x0D00, source);
    }
    struct stat status = {};
    const bool sparse = ::fstat(srcFd, &status) == 0 && status.st_blocks < status.st_size / 512;
    if (size < 1) {
        return 0;
    }
    int64_t dataStart = 0;
    int64_t extentEnd = 0;
    int64_t previousEnd = 0;
    int64_t offset = 0;
    int64_t lastBytes = 0;
    int64_t readSize = kMost;
    bool gapSkipped = false;
    do {
        extentEnd = size;
        if (sparse) {
            const int64_t hole = ::lseek(srcFd, dataStart, SEEK_HOLE);
            if (hole < 0 && errno != ENXIO) {
                return fails(0x2600, source);
            }
            extentEnd = hole < 0 ? size : std::min(size, hole);
            dataStart = std::min(size, dataStart);
            if (::lseek(srcFd, dataStart, SEEK_SET) < 0) {
                return fails(0x2600, source);
            }
            const int64_t gap = dataStart - previousEnd;
            if (gap < 0) {
                return fails(0x0D00, source);
            }
            gapSkipped = gap > 0;
            if (gap > 0) {
                const int64_t position = ::lseek(dstFd, gap, SEEK_CUR);
                if (position < 0) {
                    return fails(0x2600, source);
                }
                if (::fallocate(dstFd, 3, position - gap, gap) != 0 && errno != EOPNOTSUPP && errno != ENOSYS) {
                    return fails(0x2A00, source);
                }
                if (callbacks.progress) {
                    callbacks.progress(gap, dataStart);
                }
                offset = dataStart;
            }
        }
        if (copyBlocks(srcFd, dstFd, extentEnd - dataStart, offset, lastBytes, readSize, callbacks, source) != 0) {
            return -1;
        }
        if (sparse) {
            dataStart = ::lseek(srcFd, offset, SEEK_DATA);
            if (dataStart < 0) {
                if (errno != ENXIO) {
                    return fails(0x2600, source);
                }
                dataStart = size;
            }
        }
        previousEnd = extentEnd;
    } while (offset < size);
    if (sparse && gapSkipped && ::ftruncate(dstFd, size) != 0) {
        return fails(0x2A00, source);
    }
    return 0;
}

} // namespace model
