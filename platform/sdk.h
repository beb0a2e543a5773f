/* What the library calls of the appliance's SDK library, libvexosdk.so.7: file-system types, volumes, shared folders
 * and homes.
 *
 * Conventions as in platform/core.h.
 */
#ifndef VEXOFILEOP_PLATFORM_SDK_H
#define VEXOFILEOP_PLATFORM_SDK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The type code of the volume that holds `path`: 0 FAT, 18 exFAT, 3 btrfs, 2 ext2/3/4 and XFS, 7 HFS+ where the kernel
 * takes Apple's attribute names, 5 NTFS, 1 anything else. `flag` is 0 or 1 and changes nothing here. Negative with
 * errno on failure. */
int VEXOGetFSType(const char *path, int flag);

/* The path that the volume holding `path` is mounted at. Returns 0, or negative with errno. */
int VEXOFSMntPathGet(const char *path, char *mountPath, int size);

/* Splits a path on a volume: "/volume1/a/b" gives "/volume1" and "a/b", without a leading "/". Returns 0, or negative
 * when the path is on no volume. */
int VolumePathParseEx(const char *path, char *volume, int volumeSize, char *rest, int restSize);

typedef struct VEXOShare {
    char *name, *path;
    uint32_t status; /* bit 0x20: indexing is switched on */
} VEXOShare;

/* The shared folder that holds `path`: its name and its path. Returns 0, or negative with the last error. */
int VEXOShareNamePathGet(const char *path, char *name, int nameSize, char *sharePath, int sharePathSize);
/* A shared folder's record by its name; the caller frees it with VEXOShareFree. Returns 0, or negative. */
int VEXOShareGet(const char *name, VEXOShare **share);
void VEXOShareFree(VEXOShare *share);
/* Not 0 when `path` is in the recycle bin of a share. */
int VEXOShareIsShareRecycle(const char *path);

typedef struct VEXOHomeCheckResult {
    int kind;
    uint32_t uid, gid;
    char *user, *home;
} VEXOHomeCheckResult;

/* Whether `path` lies in a user's home. The two numbers are 1. Returns 1 or more when it does, with a record that the
 * caller frees with VEXOHomeCheckResultFree; 0 or negative otherwise. */
int VEXOServiceHomePathCheck(const char *path, int, int, VEXOHomeCheckResult **result);
void VEXOHomeCheckResultFree(VEXOHomeCheckResult *result);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
