/* What the library calls of the appliance's ACL library, libvexoacl.so. Results are 0, or negative with errno. */
#ifndef VEXOFILEOP_PLATFORM_ACL_H
#define VEXOFILEOP_PLATFORM_ACL_H

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
/* Makes `path` inherit the ACL of the directory that holds it. */
int VEXOACLEnforceInherit(const char *path);
/* Gives an "@eaDir" directory the ACL that such directories have. */
int VEXOACLSetEADirACL(const char *path);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
