// Functions of the platform on a file that may be open: with the descriptor where the file is and the platform has such
// a function, else with the path. Results and errno are the platform's.
#pragma once

#include "platform/acl.h"
#include "platform/core.h"
#include "support/file_ref.h"

#pragma weak VLIBCFileFUTime
#pragma weak VEXOACLFCopy
#pragma weak VLIBCFileIsRecord
#pragma weak VLIBCFileRecordCarry
#pragma weak VLIBCFileFComplete
#pragma weak VEXOACLArchiveFCopy
#pragma weak VEXOACLFCopyToNew

namespace vexo {

inline int extended_status(const FileRef &file, uint32_t fields, VLIBCStat *out) {
    return file.is_open() ? VLIBCFileFStat(file.fd(), fields, out, 0) : VLIBCFileStat(file.path(), fields, out);
}

// Access, modification and creation time.
inline int set_times(const FileRef &file, const timespec (&times)[3]) {
    return file.is_open() && VLIBCFileFUTime != nullptr ? VLIBCFileFUTime(file.fd(), 3, times)
                                                        : VLIBCFileUTime(file.path(), 3, times);
}

// Whether an attribute is where the platform keeps DOS attributes and creation times. They have steps of their own, so
// that the attribute is not copied as those of the users are: it would take back what those steps have set.
inline bool is_record(const char *name) {
    return VLIBCFileIsRecord != nullptr && VLIBCFileRecordCarry != nullptr && VLIBCFileIsRecord(name) != 0;
}
inline int carry_record(const FileRef &src, const FileRef &dst) {
    return VLIBCFileRecordCarry(src.path(), src.fd(), dst.path(), dst.fd());
}

// Neither is a directory where both are open.
inline int copy_acl(const FileRef &src, const FileRef &dst) {
    const bool open = src.is_open() && dst.is_open() && VEXOACLFCopy != nullptr;
    return open ? VEXOACLFCopy(src.fd(), dst.fd()) : VEXOACLCopy(src.path(), dst.path());
}
inline int copy_archive_acl(const FileRef &src, const FileRef &dst) {
    const bool open = src.is_open() && dst.is_open() && VEXOACLArchiveFCopy != nullptr;
    return open ? VEXOACLArchiveFCopy(src.fd(), dst.fd()) : VEXOACLArchiveCopy(src.path(), dst.path());
}

} // namespace vexo
