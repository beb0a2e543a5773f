// Keeps the metadata attribute of a file in step with its resource file: stamping when that was done, telling whether
// it must be done again, and doing it.
#include "ea/ea.h"

#include "ea/double/format.h"
#include "ea/double/metadata_attribute.h"
#include "ea/double/resource_path.h"
#include "ea/names/entry.h"
#include "ea/names/store.h"
#include "ea/stream/handle.h"
#include "platform/sdk.h"
#include "support/fd.h"
#include "support/report.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <sys/xattr.h>

using namespace vexo;

namespace {

using FinderInfo = std::array<uint8_t, adouble::kFinderInfoSize>;

// A caller that passes 1 does not know the volume's type and asks for nothing to happen on other types.
bool is_left_alone(const char *path, int checkFs) {
    return checkFs == 1 && !keeps_metadata_attribute(VEXOGetFSType(path, 1));
}

// The stamp, or nothing where there is none to be had; says so where that is no ordinary thing.
std::optional<int64_t> read_flush_time(const char *path) {
    int64_t stamp = 0;
    const ssize_t size = ::getxattr(path, kFlushTimeAttribute, &stamp, sizeof stamp);
    if (size == sizeof stamp) {
        return stamp;
    }
    if (size >= 0) {
        errno = ERANGE; // as for one that is too long
    }
    if (errno != EPERM && errno != ENOENT && errno != EACCES && errno != ENODATA) {
        VEXO_LOG_ERROR(VEXO_HERE, "Error: getxattr fail [%s]: %s", path, std::strerror(errno));
    }
    return std::nullopt;
}

// 1, 0 or -1 as EACheckNeedSync; nothing when the resource file does not decide.
std::optional<int> answer_of_resource_file(const char *resource, int64_t flushTime) {
    struct stat file {};
    if (::stat(resource, &file) != 0) {
        if (errno == ENOENT) {
            return 1;
        }
        if (errno == EPERM || errno == EACCES) {
            return 0;
        }
        VEXO_LOG_ERROR(VEXO_HERE, "stat error: [%s] %s", resource, std::strerror(errno));
        return -1;
    }
    if (file.st_mtime < flushTime) {
        return 1;
    }
    return std::nullopt;
}

int answer_of_file(const char *path, int64_t flushTime) {
    struct stat file {};
    if (::stat(path, &file) != 0) {
        if (errno != EPERM && errno != ENOENT && errno != EACCES) {
            // The text names another call; readers of the log look for it.
            VEXO_LOG_ERROR(VEXO_HERE, "Error: getxattr fail [%s]: %s", path, std::strerror(errno));
        }
        return 0;
    }
    return file.st_ctime > flushTime ? 1 : 0;
}

// Zero bytes where there is no resource file.
bool read_finder_info(const char *path, FinderInfo &info) {
    const Fd file(VEXOEAOpen(1, path, kResourceStream, O_RDONLY, 0));
    if (!file) {
        return errno == ENOENT;
    }
    const StreamHandle stream(file.get(), F_RDLCK);
    if (!stream) {
        return false;
    }
    std::copy(std::begin(stream->header.finderInfo), std::end(stream->header.finderInfo), info.begin());
    return true;
}

bool read_or_make_metadata(const char *path, VEXOEAAdouble &metadata) {
    const int found = VEXOEAFileEAAdoubleRead(path, &metadata);
    if (found == 1) {
        adouble::make_metadata(metadata);
    }
    return found >= 0;
}

// Finder Info that is all zero says nothing, and leaves what is stored.
bool put_finder_info(const FinderInfo &info, VEXOEAAdouble &metadata) {
    if (std::all_of(info.begin(), info.end(), [](uint8_t byte) { return byte == 0; })) {
        return true;
    }
    const VEXOEAAdoubleEntry &entry = metadata.entries[adouble::finder_info];
    // A damaged entry must not lead outside the attribute, into its header or over what other entries hold.
    if (entry.offset < adouble::kMetadataDataAt || entry.offset > adouble::kMetadataSize - info.size() ||
        entry.length < info.size()) {
        return false;
    }
    std::copy(info.begin(), info.end(), metadata.raw + entry.offset);
    return true;
}

} // namespace

int VEXOEAFileEAWriteFlushTime(const char *path, int checkFs) {
    if (path == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (is_left_alone(path, checkFs)) {
        return 0;
    }
    const int64_t now = std::time(nullptr);
    if (::setxattr(path, kFlushTimeAttribute, &now, sizeof now, 0) != 0) {
        return fail(Error::file_operation, VEXO_HERE);
    }
    return 0;
}

int EACheckNeedSync(const char *path) {
    if (path == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const std::optional<int64_t> flushTime = read_flush_time(path);
    if (!flushTime) {
        return 0;
    }
    PathBuffer resource;
    if (!make_resource_path(path, resource, VEXO_HERE)) {
        return -1;
    }
    const std::optional<int> answer =
        names_entry(path) ? answer_of_resource_file(resource.c_str(), *flushTime) : std::optional(1);
    return answer ? *answer : answer_of_file(path, *flushTime);
}

int VEXOEAFileEAFSFinfoEASync(const char *path, int checkFs) {
    if (is_left_alone(path, checkFs)) {
        return 0;
    }
    if (path == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    if (!names_entry(path)) {
        errno = EINVAL;
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    FinderInfo info{};
    VEXOEAAdouble metadata;
    if (!read_finder_info(path, info) || !read_or_make_metadata(path, metadata)) {
        return -1;
    }
    if (!put_finder_info(info, metadata)) {
        return fail(Error::read, VEXO_HERE);
    }
    adouble::encode_metadata(metadata);
    if (VEXOEAFileEAAdoubleFlush(metadata.raw, adouble::kMetadataSize, path) != 0) {
        return -1;
    }
    return VEXOEAFileEAWriteFlushTime(path, 0);
}
