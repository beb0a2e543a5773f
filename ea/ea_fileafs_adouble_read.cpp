// Reads the metadata attribute of a file.
#include "ea/ea.h"

#include "ea/double/format.h"
#include "ea/double/metadata_attribute.h"
#include "support/report.h"

#include <array>
#include <cerrno>
#include <cstring>

using namespace vexo;

namespace {

using Value = std::array<uint8_t, adouble::kMetadataSize>;

// The size of the attribute, its bytes in `value` where they are as many as they should be; -1 with errno.
ssize_t read_value(const FileRef &file, Value &value) {
    const ssize_t size = file.get_attribute(kMetadataAttribute, value.data(), value.size());
    if (size >= 0 || errno != ERANGE) {
        return size;
    }
    const ssize_t larger = file.get_attribute(kMetadataAttribute, nullptr, 0);
    if (larger >= 0 && static_cast<size_t>(larger) <= value.size()) { // it shrank meanwhile, and was not read
        errno = ERANGE;
        return -1;
    }
    return larger;
}

} // namespace

int vexo::read_metadata_attribute(const FileRef &file, VEXOEAAdouble *adouble) {
    Value value{};
    const ssize_t size = read_value(file, value);
    if (size < 0) {
        if (errno == ENODATA || errno == ENOENT) {
            return 1;
        }
        VEXO_LOG_ERROR(VEXO_HERE, "Error: getxattr path [%s] %s", file.path(), std::strerror(errno));
        return fail(Error::read, VEXO_HERE);
    }
    if (static_cast<size_t>(size) != value.size()) {
        VEXO_LOG_ERROR(VEXO_HERE, "Read size(%i) != AD_DATASZZ_EA(%i)", static_cast<int>(size),
                       static_cast<int>(value.size()));
        return fail(Error::read, VEXO_HERE);
    }
    if (VEXOEAAdoubleRead(value.data(), static_cast<int>(value.size()), adouble) != 0) {
        VEXO_LOG_ERROR(VEXO_HERE, "VEXOEAAdoubleRead failed");
        return fail(Error::read, VEXO_HERE);
    }
    if (!adouble::has_metadata_entries(*adouble)) {
        VEXO_LOG_ERROR(VEXO_HERE, "Entry size[%u] != ADEID_NUM_EA[%u] or ad_entry error",
                       static_cast<unsigned>(adouble::entry_count(*adouble)),
                       static_cast<unsigned>(adouble::kMetadataEntries));
        return fail(Error::read, VEXO_HERE);
    }
    return 0;
}

int VEXOEAFileEAAdoubleRead(const char *path, VEXOEAAdouble *adouble) {
    if (path == nullptr || adouble == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    return read_metadata_attribute(path, adouble);
}
