/* Clearing the DOS archive bit, as a backup program does after it has saved a file.
 *
 * Results are 0, or -1 with the last error: 0x0D00 for a null path, 0x0900 for one that cannot be opened. A volume that
 * refuses the request is no failure (a debug line is logged), so that callers can run on any volume. Neither function
 * goes into a directory.
 */
#ifndef VEXOFILEOP_BACKUP_BACKUP_H
#define VEXOFILEOP_BACKUP_BACKUP_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Clears the archive bit of a file (or of anything that opens for reading). */
int VEXOBackupCleanFileArchiveBit(const char *path);
/* Clears the archive bit of a directory. */
int VEXOBackupCleanDirArchiveBit(const char *path);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
