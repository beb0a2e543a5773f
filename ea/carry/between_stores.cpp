// The routines between volumes that keep streams in "@eaDir".
#include "ea/carry/routines.h"

#include "ea/carry/attributes.h"
#include "ea/carry/conversion.h"
#include "ea/carry/store_directory.h"
#include "ea/carry/stream_files.h"
#include "ea/carry/sync.h"
#include "ea/double/format.h"
#include "ea/ea.h"
#include "ea/files/store_file.h"
#include "support/guards.h"
#include "support/report.h"

#include <cerrno>
#include <unistd.h>

namespace vexo {
namespace {

int copy_both_stream_files(const EaCopyJob &job) {
    if (job.nothingStored) {
        return 0;
    }
    StreamFiles files(job);
    const int resource = copy_stream_file(job, files, kResourceStream);
    job.noAfpWord = files.copied >= 0 && files.copied < static_cast<int64_t>(adouble::kResourceHeaderSize);
    const int streams = resource != 0 ? resource : copy_stream_file(job, files, kEaStream);
    job.noOwnDirectory = streams == 0 && !job.move && files.from.lacks_own_directory();
    return streams;
}

// The resource stream of an EA-directory source, in the form the metadata attribute of the destination is made from.
int convert_resource_for_file_ea(const EaCopyJob &job) {
    StreamPath from(job.source());
    StreamPath to(job.destination());
    if (select_resource(from, job.src) < 0 || prepare_shared_directory(job.dst) < 0 ||
        select_resource(to, job.dst) < 0) {
        return -1;
    }
    const int converted = convert_or_log(from.c_str(), to.c_str(), ConvertMode::checked);
    if (converted != 0) {
        return converted == kOneFile ? 0 : converted;
    }
    if (job.move && unlink_store_file(from.c_str()) != 0 && errno != ENOENT) {
        set_error(Error::file_operation, VEXO_EA_COPY_HERE);
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed to remove [%s]. %m", from.c_str());
        return -1;
    }
    if (VEXOEAFileEAFSFinfoEASync(job.dst, 0) < 0) {
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed file sync [%s]->[%s]. %m", job.src, job.dst);
        return -1;
    }
    return 0;
}

} // namespace

int copy_ea_directory_to_ea_directory(const EaCopyJob &job) {
    const int streams = copy_both_stream_files(job);
    if (streams != 0) {
        return streams;
    }
    copy_user_attributes(job);
    return 0;
}

int copy_ea_directory_to_file_ea(const EaCopyJob &job) {
    copy_user_attributes(job);
    const int presence = stream_presence(job.src);
    if (presence <= 0) {
        return presence;
    }
    if ((presence & kHasResource) != 0) {
        const int resource = convert_resource_for_file_ea(job);
        if (resource < 0) {
            return resource;
        }
    }
    StreamFiles files(job);
    return (presence & kHasEaStream) != 0 ? copy_stream_file(job, files, kEaStream) : 0;
}

int copy_file_ea_to_ea_directory(const EaCopyJob &job) {
    const int streams = begin_file_ea(job, true);
    if (streams <= 0) {
        return streams;
    }
    const int result = copy_ea_directory_to_ea_directory(job);
    return result != 0 ? result : drop_metadata_attribute(job);
}

int copy_file_ea_to_file_ea(const EaCopyJob &job) {
    const int streams = begin_file_ea(job, true);
    return streams <= 0 ? streams : copy_both_stream_files(job);
}

} // namespace vexo
