// Stores the header at the start of a file's resource file.
#include "ea/ea.h"

#include "ea/double/format.h"
#include "ea/double/resource_path.h"
#include "ea/files/store_file.h"
#include "ea/names/entry.h"
#include "support/guards.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <utility>

using namespace vexo;

namespace {

// Opens the resource file as it is, or makes it; `created` tells which. The directory must be there.
Fd open_or_create(const char *resource, bool &created) {
    Fd file = open_store_file(resource, O_RDWR);
    created = !file && errno == ENOENT;
    return created ? open_store_file(resource, O_RDWR | O_CREAT) : std::move(file);
}

bool write_all(int fd, const void *buf, size_t size) {
    const ssize_t written = ::write(fd, buf, size);
    if (written >= 0 && static_cast<size_t>(written) < size) {
        errno = ENOSPC; // the one cause of a short write to a file; the system tells it only at the next write
        return false;
    }
    return written >= 0;
}

} // namespace

int VEXOEAEADirAdoubleFlush(const void *buf, int len, const char *path) {
    if (path == nullptr || buf == nullptr || len < 0 || static_cast<size_t>(len) > adouble::kRecordSize) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    PathBuffer resource;
    if (!make_resource_path(path, resource, VEXO_HERE)) {
        return -1;
    }
    if (!names_entry(path)) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    bool created = false;
    Fd file = open_or_create(resource.c_str(), created);
    if (!file) {
        VEXO_LOG_ERROR(VEXO_HERE, "Error open path [%s] %s", resource.c_str(), std::strerror(errno));
        return fail(Error::open, VEXO_HERE);
    }
    if (!write_all(file.get(), buf, static_cast<size_t>(len))) {
        set_error(Error::write, VEXO_HERE);
        VEXO_LOG_ERROR(VEXO_HERE, "Error: write path [%s] %s", resource.c_str(), std::strerror(errno));
        const KeepErrors keep;
        file.reset();
        if (created) {
            (void)unlink_store_file(resource.c_str());
        }
        return -1;
    }
    return 0;
}
