#include "ea/carry/sync.h"

#include "ea/carry/attributes.h"
#include "ea/carry/stream_files.h"
#include "ea/carry/two_entries.h"
#include "ea/double/metadata_attribute.h"
#include "ea/ea.h"
#include "support/report.h"

#include <cerrno>
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

// Whether the attribute's Finder Info goes into the resource file: when that is out of step, and when there is none yet
// and the Finder Info would be lost with the attribute.
int needs_write_back(const char *path, const uint8_t *finderInfo) {
    const int need = EACheckNeedSync(path);
    if (need != 0) {
        return need;
    }
    const int presence = stream_presence(path);
    if (presence < 0) {
        return -1;
    }
    return (presence & kHasResource) == 0 && !all_zero(finderInfo, kFinderInfoSize) ? 1 : 0;
}

int write_back_finder_info(const char *path) {
    VEXOEAAdouble metadata;
    const int read = VEXOEAFileEAAdoubleRead(path, &metadata);
    if (read != 0) {
        return read < 0 ? -1 : 0;
    }
    const uint8_t *finderInfo = finder_info_in(metadata);
    if (finderInfo == nullptr) {
        return 0;
    }
    const int need = needs_write_back(path, finderInfo);
    if (need <= 0) {
        return need;
    }
    return VEXOEAEADirFSFInfoWrite(path, finderInfo) < 0 ? -1 : VEXOEAFileEAWriteFlushTime(path, 0);
}

int sync_source(const EaCopyJob &job) {
    errno = 0;
    if (write_back_finder_info(job.src) == 0 || errno == EACCES || errno == EPERM) {
        return 0;
    }
    VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed file sync [%s]->[%s]. %m", job.src, job.dst);
    return -1;
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
