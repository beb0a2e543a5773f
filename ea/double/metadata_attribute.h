// The two attributes that keep a file's Apple metadata on the volumes that have them.
#pragma once

#include "ea/ea.h"
#include "support/file_ref.h"
#include "support/fs_type.h"

#include <cstddef>
#include <cstdint>

namespace vexo {

inline constexpr char kMetadataAttribute[] = "user.netatalk.Metadata"; // the AppleDouble header
// When the header was last brought in step with the resource file: seconds since 1970, signed 64-bit, host byte order.
inline constexpr char kFlushTimeAttribute[] = "user.vexo.filea.flushtime";

constexpr bool keeps_metadata_attribute(int32_t type) {
    return is_type(type, FsType::extended) || is_type(type, FsType::btrfs);
}

// VEXOEAFileEAAdoubleRead of a file that may be open.
int read_metadata_attribute(const FileRef &file, VEXOEAAdouble *adouble);
// VEXOEAFileEAAdoubleFlush of a file that may be open, with arguments that are in order.
int write_metadata_attribute(const void *value, size_t size, const FileRef &file);

} // namespace vexo
