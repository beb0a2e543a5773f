// Stores the metadata attribute of a file.
#include "ea/ea.h"

#include "ea/double/format.h"
#include "ea/double/metadata_attribute.h"
#include "support/report.h"

#include <cerrno>

using namespace vexo;

int vexo::write_metadata_attribute(const void *value, size_t size, const FileRef &file) {
    if (file.set_attribute(kMetadataAttribute, value, size, 0) != 0) {
        return fail(errno == EPERM ? Error::permission : Error::write, VEXO_HERE);
    }
    return 0;
}

int VEXOEAFileEAAdoubleFlush(const void *value, int size, const char *path) {
    if (path == nullptr || value == nullptr || size < 0 || static_cast<size_t>(size) > adouble::kRecordSize) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    return write_metadata_attribute(value, static_cast<size_t>(size), path);
}
