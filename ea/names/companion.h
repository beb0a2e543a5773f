// What opening a companion of either kind has in common.
#pragma once

namespace vexo {

// Before a companion of `path` is opened with `oflag`: whether `path` can have one. false: it cannot. There is none
// then (ENOENT), and where it was to be made or changed that is refused (EINVAL and 0x0D00).
bool can_have_companion(const char *path, int oflag, const char *source);

// After `path`'s companion was opened as `fd` with `oflag`: sets the archive attribute of the user file where the
// companion was opened for writing. Logs a failure and tolerates it: volumes without the attribute refuse.
void archive_after_open(const char *path, int fd, int oflag, const char *source);

} // namespace vexo
