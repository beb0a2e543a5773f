/* What the library calls of the appliance's ACL library, libvexoacl.so. Results are 0, or negative with errno. */
#ifndef VEXOFILEOP_PLATFORM_ACL_H
#define VEXOFILEOP_PLATFORM_ACL_H

#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Gives `dst` the ACL of `src` (and, for directories, the default ACL). */
int VEXOACLCopy(const char *src, const char *dst);
/* Gives `dst` the archive ACL of `src`, where `src` has one. */
int VEXOACLArchiveCopy(const char *src, const char *dst);
/* Optional, and declared weak by the library: the two above on open files that are no directories, which spares a walk
 * along each path. Where a platform does not define one, the function of the paths is called. `srcFd` is open for
 * reading, `dstFd` may be open for writing only. */
int VEXOACLFCopy(int srcFd, int dstFd);
int VEXOACLArchiveFCopy(int srcFd, int dstFd);
/* Optional and weak too: the two together, one after the other, where `dstFd` is a file or directory that the library
 * has just made with the permissions of `srcMode`, the mode of the source, and `names` are the source's attributes as
 * listxattr gave them, `size` bytes, on a volume that lists all of them. For directories it may fail where there is
 * anything to copy: the functions of the paths are called then. */
int VEXOACLFCopyToNew(int srcFd, int dstFd, mode_t srcMode, const char *names, size_t size);
/* Makes `path` inherit the ACL of the directory that holds it. */
int VEXOACLEnforceInherit(const char *path);
/* Gives an "@eaDir" directory the ACL that such directories have. */
int VEXOACLSetEADirACL(const char *path);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
