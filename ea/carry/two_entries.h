// The form in which resource files and "._" files are written here: header, two entry descriptors, Finder Info,
// resource fork. All numbers are big-endian.
//
//      0  magic, version, filler, entry count
//     26  id 9, offset 50, length 32
//     38  id 2, offset 82, length of the fork
//     50  Finder Info
//     82  the fork
#pragma once

#include "ea/double/format.h"

#include <cstddef>
#include <cstdint>

namespace vexo {

// Ids of AppleDouble entries.
inline constexpr uint32_t kResourceForkEntry = adouble::resource_fork;
inline constexpr uint32_t kFinderInfoEntry = adouble::finder_info;
inline constexpr uint32_t kFileServerInfoEntry = adouble::file_server_info;

inline constexpr uint32_t kFinderInfoSize = adouble::kFinderInfoSize;
inline constexpr uint32_t kFinderInfoOffset = adouble::kFixedSize + 2 * adouble::kEntrySize;
inline constexpr uint32_t kForkOffset = adouble::kNewResourceFileSize;
static_assert(kFinderInfoOffset == 50 && kForkOffset == 82);

} // namespace vexo
