// Opening a file with the assurance that it is a regular one.
#pragma once

#include "platform/core.h"

#include <sys/stat.h>
#include <sys/types.h>

namespace vexo {

// VEXOCopyOpenAndCheckIsRegular for `name` in the open directory `directory`; AT_FDCWD: `name` is a path. Log lines
// tell `path`.
int open_regular(int directory, const char *name, const char *path, int openFlags, mode_t mode, struct stat *st,
                 VLIBCStat *xst);

} // namespace vexo
