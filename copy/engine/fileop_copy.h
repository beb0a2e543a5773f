// The file-operation family's copy of one file, for callers that know more than the record says.
#pragma once

#include "copy/copy.h"
#include "copy/engine/file_copy.h"

#include <cstdint>

namespace vexo {

// VEXOFileOpCopyFile, for a file of a tree: `directory` holds the source; null: nothing is known of it.
int copy_fileop_file(const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *args,
                     const WalkedDirectory *directory);

} // namespace vexo
