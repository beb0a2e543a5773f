// What opening a companion of either kind has in common.
#pragma once

#include "support/report.h"

#include <sys/types.h>

namespace vexo {

// Companions are made with it, as the umask leaves it: whoever may write the file must be able to write what belongs
// to it.
inline constexpr mode_t kCompanionMode = 0777;

// After `path`'s companion was opened as `fd` with `oflag`: sets the archive attribute of the user file where the
// companion was opened for writing. Logs a failure and tolerates it: volumes without the attribute refuse.
void archive_after_open(const char *path, int fd, int oflag, const char *source);

} // namespace vexo
