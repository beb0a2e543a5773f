// Opening what a store is made of: stream files, resource files, "._" files, old attribute files, and the directories
// they lie in. "@eaDir" may be written by everybody, so that whoever works there with more rights than its neighbours
// must not be led away: no link is followed from "@eaDir" on, nothing is waited for, and only a regular file will do.
//
// Nothing here reports: results and errno only. errno is ELOOP where a link stands, EINVAL where anything else stands
// that is no regular file, EMLINK where the file has other names and not everybody may do with it what was asked.
#pragma once

#include "support/fd.h"

#include <sys/stat.h>
#include <sys/types.h>

namespace vexo {

// Every file of a store is for everybody: who may see it decide the file it belongs to, and the directory.
inline constexpr mode_t kStoreMode = 0777;

// Opens a store file by its path, with `flags` as open() takes them. What O_TRUNC asks for is done once the file is
// known to be what it should be.
Fd open_store_file(const char *path, int flags, mode_t mode = kStoreMode);
// The same by its name in a directory that is open, with what was seen of it.
Fd open_store_file_in(int directory, const char *name, int flags, struct stat &seen, mode_t mode = kStoreMode);
inline Fd open_store_file_in(int directory, const char *name, int flags, mode_t mode = kStoreMode) {
    struct stat seen;
    return open_store_file_in(directory, name, flags, seen, mode);
}

// The same for a caller of ours, who gets what open() gives: a descriptor with the flags that were asked for, or -1.
int open_store_file_for_caller(const char *path, int flags);

// Opens a store directory ("@eaDir" or "@eaDir/<base>") to look at it and to change its mode. O_RDONLY.
Fd open_store_directory(const char *path);

// What open_store_file() would say of what stands there, without opening it, for a function of somebody else's that
// will open it by its path. 0 with `status`, or -1.
int check_store_file(const char *path, int flags, struct stat &status);

// Opens a store file to everybody (kStoreMode), by way of a descriptor. 0 or -1.
int set_store_mode(const char *path);

// Whether a regular file stands at the path of a store file, no link followed on the way. Leaves errno alone.
bool is_store_file(const char *path);

// Removes what stands at the path of a store file, no link followed on the way. 0 or -1.
int unlink_store_file(const char *path);

} // namespace vexo
