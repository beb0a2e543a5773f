#include "ea/carry/sync.h"

#include "ea/carry/attributes.h"
#include "ea/carry/stream_files.h"
#include "ea/carry/two_entries.h"
#include "ea/double/metadata_attribute.h"
#include "ea/ea.h"
#include "ea/files/store_entry.h"
#include "ea/files/store_file.h"
#include "ea/names/stream_path.h"
#include "ea/stream/handle.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/report.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

namespace vexo {
namespace {

// The Finder Info in a metadata header, which has an entry for it; null when that leaves no room for it.
const uint8_t *finder_info_in(const VEXOEAAdouble &metadata) {
    const uint64_t offset = metadata.entries[kFinderInfoEntry].offset;
    return offset > sizeof metadata.raw - kFinderInfoSize ? nullptr : metadata.raw + offset;
}

bool all_zero(const uint8_t *bytes, size_t size) {
    for (size_t at = 0; at < size; ++at) {
        if (bytes[at] != 0) {
            return false;
        }
    }
    return true;
}

// Whether the resource file holds no Finder Info. One that cannot be understood holds something.
bool holds_none(const char *resource) {
    const KeepErrors keep;
    const Fd file = open_store_file(resource, O_RDONLY);
    const StreamHandle stream(file.get(), F_RDLCK);
    return stream && all_zero(stream->header.finderInfo, sizeof stream->header.finderInfo);
}

// Whether nothing has changed the resource file since the attribute was last brought in step with it.
bool is_older_than_attribute(const FileRef &file, const struct stat &resource) {
    int64_t stamp = 0;
    return file.get_attribute(kFlushTimeAttribute, &stamp, sizeof stamp) == sizeof stamp && resource.st_mtime <= stamp;
}

// Whether the attribute's Finder Info goes into the resource file: where there is none yet, so that it would be lost
// with the attribute, and where the attribute is the newer one. What was put into the resource file since wins. 1, 0 or
// -1 with errno.
int needs_write_back(const FileRef &file, const uint8_t *finderInfo) {
    if (all_zero(finderInfo, kFinderInfoSize)) {
        return 0;
    }
    PathBuffer resource;
    if (!make_stream_path(file, kResourceStream, resource)) {
        return -1;
    }
    struct stat status;
    if (look_in_store(resource.c_str(), status) != 0) {
        return says_absent(errno) ? 1 : -1;
    }
    if (holds_none(resource.c_str())) {
        return 1;
    }
    const int need = EACheckNeedSync(file.path());
    return need == 1 && !is_older_than_attribute(file, status) ? 0 : need;
}

int write_back(const FileRef &file, const VEXOEAAdouble &metadata) {
    const uint8_t *const finderInfo = finder_info_in(metadata);
    const int need = finderInfo == nullptr ? 0 : needs_write_back(file, finderInfo);
    if (need <= 0) {
        return need;
    }
    set_error(Error::none, VEXO_EA_COPY_HERE);
    if (VEXOEAEADirFSFInfoWrite(file.path(), finderInfo) < 0) {
        return last_error() == Error::none ? fail(Error::open, VEXO_EA_COPY_HERE) : -1;
    }
    return VEXOEAFileEAWriteFlushTime(file.path(), 0);
}

bool is_denied(int number) {
    return number == EACCES || number == EPERM || number == EROFS;
}

// Metadata that may not be read have said so themselves. A source that may not be written, or lies on a volume that
// cannot be, is read as it is.
int sync_source(const EaCopyJob &job) {
    errno = 0;
    VEXOEAAdouble metadata;
    const int read = read_metadata_attribute(job.source(), &metadata);
    if (read == 1 || (read < 0 && is_denied(errno))) {
        return 0;
    }
    if (read == 0 && write_back(job.source(), metadata) == 0) {
        return 0;
    }
    VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed file sync [%s]->[%s]. %m", job.src, job.dst);
    return read == 0 && is_denied(errno) ? 0 : -1;
}

} // namespace

int begin_file_ea(const EaCopyJob &job, bool userAttributes) {
    if (!job.nothingStored && sync_source(job) < 0) {
        return -1;
    }
    if (userAttributes) {
        copy_user_attributes(job);
    }
    if (job.nothingStored) {
        return 0;
    }
    // That an "@eaDir" was not there is no longer certain.
    const StoreSeen seen = job.seen == StoreSeen::neither ? StoreSeen::unknown : job.seen;
    const int presence = stream_presence(job.source(), seen);
    return presence > 0 ? 1 : presence;
}

int sync_destination(const EaCopyJob &job) {
    const int presence = stream_presence(job.dst);
    if (presence < 0) {
        return -1;
    }
    if ((presence & kHasResource) != 0 && VEXOEAFileEAFSFinfoEASync(job.dst, 0) < 0) {
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed ea sync [%s]->[%s]. %m", job.src, job.dst);
        return -1;
    }
    return 0;
}

int drop_metadata_attribute(const EaCopyJob &job) {
    if (!job.move || ::removexattr(job.src, kMetadataAttribute) == 0 || errno == ENODATA || errno == ENOENT) {
        return 0;
    }
    set_error(Error::file_operation, VEXO_EA_COPY_HERE);
    VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "remove xattr from [%s] %m", job.src);
    return -1;
}

} // namespace vexo
