// The file-operation family's copies of one file and of its data, for callers that know more than the record says.
#pragma once

#include "copy/copy.h"
#include "copy/engine/file_copy.h"

#include <cstdint>
#include <sys/stat.h>

namespace vexo {

// VEXOFileOpCopyFile, for a file of a tree: `directory` holds the source; null: nothing is known of it.
int copy_fileop_file(const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *args,
                     const WalkedDirectory *directory);

// VEXOFileOpCopyFileFd; `srcStatus`: the status of the open source, null where it has not been asked for.
int copy_fileop_data(int srcFd, int dstFd, int64_t size, VEXOCopyArgs *args, const struct stat *srcStatus);

} // namespace vexo
