// Opening a file with the assurance that it is a regular one, for callers that may hold its directory open.
#pragma once

#include "platform/core.h"

#include <sys/stat.h>

namespace vexo {

// A name in an open directory, or a path with AT_FDCWD.
struct OpenAt {
    int directory;
    const char *name;
};

// VEXOCopyOpenAndCheckIsRegular of a file that is found there; `path` is its path for log lines.
int open_regular(OpenAt where, const char *path, int openFlags, mode_t mode, struct stat *st, VLIBCStat *xst);

} // namespace vexo
