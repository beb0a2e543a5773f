// The routines from and to volumes that keep what belongs to a file in a "._" file beside it.
#include "ea/carry/routines.h"

#include "ea/carry/conversion.h"
#include "ea/carry/store_directory.h"
#include "ea/carry/stream_files.h"
#include "ea/carry/sync.h"
#include "ea/ea.h"
#include "ea/files/store_file.h"
#include "support/fd.h"
#include "support/path_buffer.h"
#include "support/report.h"
#include "transfer/fat_name.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace vexo {
namespace {

int double_path(const char *path, PathBuffer &out) {
    return VEXOEAADPath(path, out.fill(), PathBuffer::kUsable);
}

// The attributes in the AppleDouble file `from`, as the attribute stream of the destination. One without any makes
// none.
int move_attributes_to_stream(const char *from, const char *dst) {
    const Fd source = open_store_file(from, O_RDONLY);
    if (!source) {
        return errno == ENOENT ? 0 : fail(Error::open, VEXO_EA_COPY_HERE);
    }
    const int count = attribute_count(source.get());
    if (count <= 0) {
        return count;
    }
    const Fd stream(VEXOEAOpen(kCurrentLayout, dst, kEaStream, O_RDWR | O_CREAT, kStreamCompanion));
    if (!stream) {
        return fail(Error::open, VEXO_EA_COPY_HERE);
    }
    return write_attributes(source.get(), stream.get());
}

// The attribute stream of the source, into the AppleDouble file `to`.
int append_stream(const char *src, const char *to) {
    const Fd stream(VEXOEAOpen(kCurrentLayout, src, kEaStream, O_RDONLY, kStreamCompanion));
    if (!stream) {
        return errno == ENOENT ? 0 : fail(Error::open, VEXO_EA_COPY_HERE);
    }
    const int count = attribute_count(stream.get());
    if (count <= 0) {
        return count;
    }
    const Fd destination = open_store_file(to, O_RDWR | O_CREAT);
    if (!destination) {
        return fail(Error::open, VEXO_EA_COPY_HERE);
    }
    return write_attributes(stream.get(), destination.get());
}

bool exists(const char *path) {
    return ::access(path, F_OK) == 0;
}

// The place of the destination's AppleDouble file, on a volume that may reserve characters.
int destination_double_path(const char *dst, PathBuffer &out) {
    PathBuffer plain;
    if (VEXOEAADPath(dst, plain.fill(), PathBuffer::kSize) < 0) {
        if (last_error() != Error::name_too_long) {
            return -1;
        }
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "filename too long: [%s].", dst);
        return kNameTooLong;
    }
    return replace_fat_reserved(plain.c_str(), out.fill(), PathBuffer::kSize);
}

int convert_resource_to_double(const EaCopyJob &job, const char *to) {
    PathBuffer from;
    if (VEXOEAPath(kCurrentLayout, job.src, kResourceStream, from.fill(), PathBuffer::kUsable, kStreamCompanion) < 0) {
        return -1;
    }
    const int converted = convert_apple_double(from.c_str(), to, ConvertMode::checked);
    if (converted < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to copy %s to %s, reason = %d.", from.c_str(), to, converted);
    }
    return converted;
}

} // namespace

int copy_adfs_to_adfs(const EaCopyJob &job) {
    PathBuffer from;
    PathBuffer to;
    if (double_path(job.src, from) < 0 || double_path(job.dst, to) < 0) {
        if (last_error() != Error::name_too_long) {
            return -1;
        }
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "filename too long: [%s].", job.src);
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "filename too long: [%s].", job.dst);
        return kNameTooLong;
    }
    const int copied = copy_store_file(from.c_str(), to.c_str());
    if (copied < 0) {
        VEXO_LOG_ERROR_IN(VEXO_EA_COPY_HERE, "EACopyADFStoADFS", "Failed to cp -f %s.\n", from.c_str());
        return -1;
    }
    if (job.move && copied == 0 && unlink_store_file(from.c_str()) != 0 && errno != ENOENT) {
        set_error(Error::file_operation, VEXO_EA_COPY_HERE);
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Failed to remove [%s]. %m", from.c_str());
        return -1;
    }
    return 0;
}

int copy_adfs_to_ea_directory(const EaCopyJob &job) {
    PathBuffer from;
    if (double_path(job.src, from) < 0) {
        if (last_error() == Error::name_too_long) {
            VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "filename too long: [%s].", job.src);
            return kNameTooLong;
        }
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Fail to generate path.[0x%04X %s:%d]", VLIBCErrGet(), VLIBCErrorGetFile(),
                       static_cast<int>(VLIBCErrorGetLine()));
        return -1;
    }
    if (!exists(from.c_str())) { // most files have none: no "@eaDir" is made for them
        return 0;
    }
    PathBuffer to;
    if (prepare_ea_directory(kSharedDirectory, job.dst, to) < 0) {
        return -1;
    }
    if (VEXOEAPath(kCurrentLayout, job.dst, kResourceStream, to.fill(), PathBuffer::kUsable, kStreamCompanion) < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Fail to generate path.[0x%04X %s:%d]", VLIBCErrGet(), VLIBCErrorGetFile(),
                       static_cast<int>(VLIBCErrorGetLine()));
        return -1;
    }
    const int converted = convert_or_log(from.c_str(), to.c_str(), ConvertMode::plain);
    if (converted != 0) {
        return converted == kOneFile ? 0 : converted;
    }
    if (move_attributes_to_stream(from.c_str(), job.dst) < 0) {
        return -1;
    }
    if (job.move && unlink_store_file(from.c_str()) != 0 && errno != ENOENT) {
        return fail(Error::file_operation, VEXO_EA_COPY_HERE);
    }
    return 0;
}

int copy_adfs_to_file_ea(const EaCopyJob &job) {
    const int result = copy_adfs_to_ea_directory(job);
    return result != 0 ? result : sync_destination(job);
}

int copy_ea_directory_to_adfs(const EaCopyJob &job) {
    PathBuffer to;
    const int named = destination_double_path(job.dst, to);
    if (named < 0) {
        return named;
    }
    const int resource = convert_resource_to_double(job, to.c_str());
    if (resource != 0) {
        return resource == kOneFile ? 0 : resource;
    }
    if (append_stream(job.src, to.c_str()) < 0) {
        VEXO_LOG_ERROR(VEXO_EA_COPY_HERE, "Failed to copy %s to %s, reason = %d.", job.src, to.c_str(), -1);
        return -1;
    }
    // Only now: the attributes were put in front of the fork, and had that failed half way, the source's would be the
    // only one.
    return job.move ? unlink_source_stream(job, kResourceStream, kStreamCompanion) : 0;
}

int copy_file_ea_to_adfs(const EaCopyJob &job) {
    const int streams = begin_file_ea(job, false);
    if (streams <= 0) {
        return streams;
    }
    const int result = copy_ea_directory_to_adfs(job);
    return result != 0 ? result : drop_metadata_attribute(job);
}

} // namespace vexo
