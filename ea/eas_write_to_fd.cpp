// Copies every attribute of one stream file into another.
#include "ea/ea.h"

#include "ea/stream/file.h"
#include "ea/stream/handle.h"
#include "support/heap.h"
#include "support/report.h"

#include <algorithm>
#include <sys/stat.h>

using namespace vexo;

namespace {

// Of the same file the two handles would not know of each other's changes; it has all of its attributes already.
bool is_same_file(int srcFd, int dstFd) {
    struct stat src {};
    struct stat dst {};
    return ::fstat(srcFd, &src) == 0 && ::fstat(dstFd, &dst) == 0 && src.st_dev == dst.st_dev &&
           src.st_ino == dst.st_ino;
}

int reserve(HeapBuffer &buffer, uint64_t size) {
    constexpr uint64_t kUsualSize = 1024;
    if (size <= buffer.size()) {
        return 0;
    }
    return buffer.resize(std::max(size, kUsualSize)) ? 0 : fail(Error::out_of_memory_ea, VEXO_HERE);
}

// A handle whose write failed may no longer know what is in the file, and writing on with it could harm what is there:
// the next attribute gets a new one.
int write_value(const VEXOEASRecord &record, const HeapBuffer &value, StreamHandle &dst, int dstFd) {
    constexpr int kAllowOverwrite = 1;
    if (!dst) {
        dst = StreamHandle(dstFd, F_WRLCK);
    }
    if (!dst || VEXOEASWrite(dst.get(), record.name, value.data(), record.length, 0, kAllowOverwrite) < 0) {
        dst.reset();
        return fail(Error::write, VEXO_HERE);
    }
    return 0;
}

int copy_attribute(const VEXOEAS &src, const VEXOEASRecord &record, StreamHandle &dst, int dstFd, HeapBuffer &buffer) {
    const auto size = eas::size_of(src.fd);
    // Before memory is asked for it: a length that the file cannot hold.
    if (!size || uint64_t{record.offset} + record.length > *size) {
        return fail(Error::read, VEXO_HERE);
    }
    if (reserve(buffer, record.length) != 0) {
        return -1;
    }
    if (!eas::seek_to(src.fd, record.offset) || !eas::read_all(src.fd, buffer.data(), record.length)) {
        return fail(Error::read, VEXO_HERE);
    }
    return write_value(record, buffer, dst, dstFd);
}

} // namespace

int EASWriteToFd(int srcFd, int dstFd) {
    if (srcFd < 0 || dstFd < 0) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (is_same_file(srcFd, dstFd)) {
        return 0;
    }
    const StreamHandle src(srcFd, F_RDLCK);
    if (!src) {
        return -1;
    }
    StreamHandle dst(dstFd, F_WRLCK);
    if (!dst) {
        return -1;
    }
    HeapBuffer buffer;
    int failed = 0;
    Error cause = Error::none;
    for (uint32_t at = 0; at < src->header.attrCount; ++at) {
        if (copy_attribute(*src.get(), src->records[at], dst, dstFd, buffer) != 0) {
            ++failed;
            cause = last_error();
        }
    }
    if (failed == 0) {
        return 0;
    }
    set_error(cause, VEXO_HERE); // what came after it may have left another code
    return -1 - failed;
}
