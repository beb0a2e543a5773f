// Looking at the entries of a store, making, moving and removing them. No link is followed on the way from "@eaDir" on,
// nor in the last component. Nothing here reports: results are 0, or -1 with errno.
#pragma once

#include <sys/stat.h>

namespace vexo {

// What stands there itself. errno is ENOTDIR, as for what is not there, where the way is not one of directories.
int look_in_store(const char *path, struct stat &out);
// Whether a look that failed says that nothing is there; anything else says nothing.
bool says_absent(int number);

// As rename(): what stands at `to` is replaced.
int rename_in_store(const char *from, const char *to);
int make_store_directory(const char *path, mode_t mode);
int remove_store_directory(const char *path);

} // namespace vexo
