// The path of a file's resource file.
#pragma once

#include "ea/ea.h"
#include "ea/metadata_attribute.h"
#include "ea/store.h"
#include "support/path_buffer.h"
#include "support/report.h"

namespace vexo {

// Reports with one line; the cause is that of VEXOEAPath.
[[nodiscard]] inline bool make_resource_path(const char *path, PathBuffer &out, Place place) {
    if (VEXOEAPath(1, path, kResourceStream, out.fill(), PathBuffer::kSize, 0) != 0) {
        VEXO_LOG_ERROR(place, "Fail to generate path of %s.", path);
        return false;
    }
    out.adopt();
    return true;
}

} // namespace vexo
