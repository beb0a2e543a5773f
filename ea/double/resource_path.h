// The path of a file's resource file.
#pragma once

#include "ea/double/metadata_attribute.h"
#include "ea/ea.h"
#include "ea/names/store.h"
#include "ea/names/stream_path.h"
#include "support/path_buffer.h"
#include "support/report.h"

namespace vexo {

// Reports with one line; the cause is that of VEXOEAPath.
[[nodiscard]] inline bool make_resource_path(const FileRef &file, PathBuffer &out, Place place) {
    if (!make_stream_path(file, kResourceStream, out, PathBuffer::kSize)) {
        VEXO_LOG_ERROR(place, "Fail to generate path of %s.", file.path());
        return false;
    }
    return true;
}

// VEXOEAEADirAdoubleRead of a file that may be open.
int read_resource_header(const FileRef &file, VEXOEAAdouble *adouble);

} // namespace vexo
