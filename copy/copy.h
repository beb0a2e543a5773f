/* Copying and moving files: the option records with their callbacks, and every function of the copy engine.
 *
 * Conventions of this header
 *
 *  1. Results are 0 for success and -1 for failure unless a function says otherwise. The cause of a failure is the last
 *     error, read with VLIBCErrGet() (platform/core.h); each function lists the codes it raises.
 *  2. Paths are absolute, NUL-terminated byte strings of at most 4095 bytes and stay the caller's. Buffers that receive
 *     a path have 4096 bytes.
 *  3. Sizes and offsets are signed 64-bit byte counts.
 *  4. A record is plain data. The library keeps no pointer to one after a call, and what a record's pointers point to
 *     stays the caller's. A null callback slot means not supplied: the built-in behaviour is used.
 *  5. Callbacks run on the calling thread, between two steps of the operation. They must not throw.
 *  6. Nothing is locked. What a call changes in the process while it runs (umask, effective user) it puts back, but
 *     callers serialise calls that do so; each function says what it changes.
 *  7. Failures are logged through syslog, one line each, as "<source>:<line> <text>".
 *
 * Example: copy a film, replacing what is there, with a progress line and a way to stop.
 *
 *     static void show(int64_t bytes, int64_t offset) { printf("\r%lld", (long long)offset); }
 *     static int stopped(void) { return interrupted; }
 *
 *     VEXOCopyOpt options = {0};
 *     options.overwrite = 1;
 *     options.ownerMode = 1;
 *     options.copyAcl = 1;
 *     options.progress = show;
 *     options.isCancel = stopped;
 *     if (VEXOFileCopy("/volume1/video/film.mkv", "/volume2/backup/film.mkv", &options) != 0)
 *         fprintf(stderr, "copy failed: 0x%04X\n", VLIBCErrGet());
 */
#ifndef VEXOFILEOP_COPY_COPY_H
#define VEXOFILEOP_COPY_COPY_H

#include "platform/core.h"

#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct VEXOCopyArgs VEXOCopyArgs;
typedef struct VEXOCopyArgsEx VEXOCopyArgsEx;
typedef struct VEXOCopyTHRArgs VEXOCopyTHRArgs;
typedef struct VEXOCopyOpt VEXOCopyOpt;
typedef struct VEXOCopyOptR VEXOCopyOptR;

/* ---- Callbacks --------------------------------------------------------------------------------------------------
 *
 * Each comes in two forms: with the user data stored beside its slot (VEXOCopyArgs, VEXOCopyTHRArgs), and bare
 * (VEXOCopyOpt, VEXOCopyArgsEx). */

/* After each block written: its size, and the destination offset behind it. After each hole skipped in a sparse copy:
 * its length, and the offset of the next data. Once after a move done by rename: the total size, and 0. */
typedef void (*VEXOCopyProgressFn)(void *data, int64_t bytes, int64_t offset);
typedef void (*VEXOCopyBareProgressFn)(int64_t bytes, int64_t offset);

/* Once for each single-file copy that fails: the source's path and the last error. */
typedef void (*VEXOCopyErrReportFn)(void *data, const char *path, uint32_t code);
typedef void (*VEXOCopyBareErrReportFn)(const char *path, uint32_t code);

/* Not 0 to stop. Asked before every block, after a failed copy (a cancelled copy removes its partial destination and
 * counts as a success) and before the source of a move is removed (which is then kept). */
typedef int (*VEXOCopyIsCancelFn)(void *data);
typedef int (*VEXOCopyBareIsCancelFn)(void);

/* When the destination exists and is not to be replaced, at most once for a file: 0 with another destination path in
 * `out` (`size` is 4096), anything else to fail the copy with 0x0800. */
typedef int (*VEXOCopyRenameFn)(void *data, const char *dst, char *out, int size);
typedef int (*VEXOCopyBareRenameFn)(const char *dst, char *out, int size);

/* Before every read: how many bytes to read next, given the bytes read last time (0 before the first) and the current
 * offset. A result below 1 or above 8 MiB is replaced by 8 MiB. */
typedef int64_t (*VEXOCopyGetReadSizeFn)(void *data, int64_t lastBytes, int64_t offset);
typedef int64_t (*VEXOCopyBareGetReadSizeFn)(int64_t lastBytes, int64_t offset);

/* In place of the transfer of the data, with both files open. May put other descriptors in the place of the two; what
 * they hold afterwards is closed. Negative is a failure, with the last error set by the callback. */
typedef int (*VEXOCopyReadWriteDataFn)(void *data, const char *src, const char *dst, int *srcFd, int *dstFd,
                                       int64_t size, VEXOCopyArgs *args);
typedef int (*VEXOCopyTHRReadWriteDataFn)(void *data, const char *src, const char *dst, int *srcFd, int *dstFd,
                                          int64_t size, VEXOCopyProgressFn progress, VEXOCopyIsCancelFn isCancel,
                                          VEXOCopyTHRArgs *thr);
typedef int (*VEXOCopyBareReadWriteDataFn)(const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size,
                                           VEXOCopyBareProgressFn progress, VEXOCopyBareIsCancelFn isCancel,
                                           VEXOCopyArgsEx *ex);

/* In place of the whole single-file copy; the entry point then does only its after-steps. 0 is a success, anything else
 * is returned to the caller as it is. srcType and dstType are -1 and spare is 1. */
typedef int (*VEXOCopyFileFn)(void *data, const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *args);
typedef int (*VEXOCopyTHRFileFn)(void *data, const char *src, const char *dst, VEXOCopyOptR *opt, int srcType,
                                 int dstType, int spare, VEXOCopyTHRArgs *thr);
typedef int (*VEXOCopyBareFileFn)(const char *src, const char *dst, VEXOCopyOpt *opt, int srcType, int dstType,
                                  int spare, VEXOCopyArgsEx *ex);

/* In place of the copy of one file of the extended-attribute store. Negative is a failure. */
typedef int (*VEXOCopyEAFn)(void *data, const char *srcEA, const char *dstEA);
typedef int (*VEXOCopyBareEAFn)(const char *srcEA, const char *dstEA);

/* The size in bytes of a tree that a directory copy has moved by rename. */
typedef int64_t (*VEXOCopyGetDirSizeFn)(void *data, const char *src, const char *dst);
typedef int64_t (*VEXOCopyBareGetDirSizeFn)(const char *src, const char *dst);

/* The name that an entry of a directory gets at the destination, in `out` (`size` is 4096). Negative: its own name. */
typedef int (*VEXOCopyGetDstFileNameFn)(void *data, const char *name, char *out, int size);
typedef int (*VEXOCopyBareGetDstFileNameFn)(const char *name, const char *srcCodePage, const char *destCodePage,
                                            char *out, int size);

/* ---- Records ----------------------------------------------------------------------------------------------------
 *
 * Callers bind to sizes, offsets and meanings as they are. */

/* Drives the file-operation entry points. Made by VEXOCopyArgsAlloc, filled by the setters, released by
 * VEXOCopyArgsFree. Not to be used by two copies at the same time: they write the types back into it. */
struct VEXOCopyArgs {
    uint32_t uid, gid;            /* owner of new files and directories; 0 means 1024 and 100 */
    int32_t fsTypeSrc, fsTypeDst; /* type codes of the two volumes; -1: looked up, and written back here */
    uint64_t dstFsFileSizeLimit;  /* largest file the destination takes, in bytes; 0: looked up */
    uint32_t cleanArchive;        /* not 0: clear the source's archive bit after a success */
    VEXOCopyProgressFn progress;
    void *progressArg;
    VEXOCopyErrReportFn errReport;
    void *errReportArg;
    VEXOCopyRenameFn rename;
    void *renameArg;
    VEXOCopyIsCancelFn isCancel;
    void *isCancelArg;
    VEXOCopyGetReadSizeFn getReadSize;
    void *getReadSizeArg;
    VEXOCopyReadWriteDataFn readWriteData;
    void *readWriteDataArg;
    VEXOCopyFileFn copyFile;
    void *copyFileArg;
    VEXOCopyEAFn copyEA;
    void *copyEAArg;
    VEXOCopyGetDirSizeFn getDirSize;
    void *getDirSizeArg;
    VEXOCopyGetDstFileNameFn getDstFileName;
    void *getDstFileNameArg;
};

/* Rides beside a VEXOCopyOpt. Made by VEXOCopyArgsExAlloc, filled by the setters, released by VEXOCopyArgsExFree. */
struct VEXOCopyArgsEx {
    VEXOCopyBareGetReadSizeFn getReadSize;
    VEXOCopyBareReadWriteDataFn readWriteData;
    VEXOCopyBareFileFn copyFile;
    VEXOCopyBareEAFn copyEA;
    VEXOCopyBareGetDirSizeFn getDirSize;
    VEXOCopyBareGetDstFileNameFn getDstFileName;
    char srcCodePage[64], destCodePage[64]; /* handed to getDstFileName; empty: none */
};

/* Callbacks with user data for callers that run several copies at once. Made by VEXOCopyTHRArgsAlloc, filled by the
 * setters, released by VEXOCopyTHRArgsFree. */
struct VEXOCopyTHRArgs {
    VEXOCopyProgressFn progress;
    void *progressArg;
    VEXOCopyErrReportFn errReport;
    void *errReportArg;
    VEXOCopyIsCancelFn isCancel;
    void *isCancelArg;
    VEXOCopyRenameFn rename;
    void *renameArg;
    VEXOCopyGetReadSizeFn getReadSize;
    void *getReadSizeArg;
    VEXOCopyTHRReadWriteDataFn readWriteData;
    void *readWriteDataArg;
    VEXOCopyTHRFileFn copyFile;
    void *copyFileArg;
    VEXOCopyEAFn copyEA;
    void *copyEAArg;
    VEXOCopyGetDirSizeFn getDirSize;
    void *getDirSizeArg;
};

/* The caller's own options, zero-filled and then set: all zero copies, leaves an existing destination as it is and
 * gives the copy to user 1024, group 100 when run by root. */
struct VEXOCopyOpt {
    int32_t overwrite;       /* an existing destination: 1 is replaced, -1 fails with 0xA300, 0 stays (success) */
    uint32_t move;           /* not 0: move (rename; across volumes copy, then remove the source) */
    uint32_t stopOnError;    /* not 0: a directory copy ends at the first failed entry; a file copy does not read it */
    uint32_t ownerMode;      /* 1: the copy gets the source's owner and group; else uid and gid below */
    uint32_t copyAcl;        /* not 0: copy the ACL and the archive ACL */
    uint32_t enforceInherit; /* not 0: after a success make the copy inherit its parent's ACL */
    uint32_t cleanArchive;   /* not 0: after a success clear the source's archive bit */
    VEXOCopyBareProgressFn progress;
    VEXOCopyBareErrReportFn errReport;
    VEXOCopyBareIsCancelFn isCancel;
    VEXOCopyBareRenameFn rename;
    uint32_t eaFlags;  /* 1: carry everything in the source's EA directory along, whatever the kinds of the volumes */
    uint32_t uid, gid; /* 0 means 1024 and 100 */
    uint32_t eaCopy;   /* the last word, which only the directory copy reads */
};

/* The same for VEXOFileCopy_r, whose callbacks come from a VEXOCopyTHRArgs. */
struct VEXOCopyOptR {
    int32_t overwrite;
    uint32_t move, stopOnError, ownerMode, copyAcl, enforceInherit, cleanArchive;
    uint32_t uid, gid;
};

/* ---- Making, filling and releasing records ----------------------------------------------------------------------
 *
 * Setters answer 0, or -1 with 0x0D00 and the record unchanged for a null record, a null callback or a negative type. A
 * callback is stored together with its user data. */

/* A zero-filled record with both types -1; null with 0x0200 when out of memory. */
VEXOCopyArgs *VEXOCopyArgsAlloc(void);
/* Releases a record; null does nothing. */
void VEXOCopyArgsFree(VEXOCopyArgs *record);
int VEXOCopyArgsSetUserUID(VEXOCopyArgs *record, uint32_t uid);
int VEXOCopyArgsSetUserGID(VEXOCopyArgs *record, uint32_t gid);
int VEXOCopyArgsSetFsTypeSrc(VEXOCopyArgs *record, int type);
int VEXOCopyArgsSetFsTypeDst(VEXOCopyArgs *record, int type);
int VEXOCopyArgsSetDstFsFileSizeLimit(VEXOCopyArgs *record, uint64_t bytes);
int VEXOCopyArgsSetCleanArchive(VEXOCopyArgs *record, uint32_t on);
int VEXOCopyArgsSetFnSetProgress(VEXOCopyArgs *record, VEXOCopyProgressFn function, void *data);
int VEXOCopyArgsSetFnErrReport(VEXOCopyArgs *record, VEXOCopyErrReportFn function, void *data);
int VEXOCopyArgsSetFnIsCancel(VEXOCopyArgs *record, VEXOCopyIsCancelFn function, void *data);
int VEXOCopyArgsSetFnRename(VEXOCopyArgs *record, VEXOCopyRenameFn function, void *data);
int VEXOCopyArgsSetFnGetReadSize(VEXOCopyArgs *record, VEXOCopyGetReadSizeFn function, void *data);
int VEXOCopyArgsSetFnReadWriteData(VEXOCopyArgs *record, VEXOCopyReadWriteDataFn function, void *data);
int VEXOCopyArgsSetFnCopyFile(VEXOCopyArgs *record, VEXOCopyFileFn function, void *data);
int VEXOCopyArgsSetFnCopyEA(VEXOCopyArgs *record, VEXOCopyEAFn function, void *data);
int VEXOCopyArgsSetFnGetDirSize(VEXOCopyArgs *record, VEXOCopyGetDirSizeFn function, void *data);
int VEXOCopyArgsSetFnGetDstFileName(VEXOCopyArgs *record, VEXOCopyGetDstFileNameFn function, void *data);

/* A zero-filled record; null, with a log line and no error code, when out of memory. */
VEXOCopyArgsEx *VEXOCopyArgsExAlloc(void);
void VEXOCopyArgsExFree(VEXOCopyArgsEx *record);
int VEXOCopyArgsExSetGetReadSize(VEXOCopyArgsEx *record, VEXOCopyBareGetReadSizeFn function);
int VEXOCopyArgsExSetReadWriteData(VEXOCopyArgsEx *record, VEXOCopyBareReadWriteDataFn function);
int VEXOCopyArgsExSetCopyFile(VEXOCopyArgsEx *record, VEXOCopyBareFileFn function);
int VEXOCopyArgsExSetCopyEA(VEXOCopyArgsEx *record, VEXOCopyBareEAFn function);
int VEXOCopyArgsExSetGetDirSize(VEXOCopyArgsEx *record, VEXOCopyBareGetDirSizeFn function);
int VEXOCopyArgsExSetGetDstFileName(VEXOCopyArgsEx *record, VEXOCopyBareGetDstFileNameFn function);
/* Keeps the first 62 bytes of `name`; null or an empty name clears the field. */
int VEXOCopyArgsExSetSrcCodePage(VEXOCopyArgsEx *record, const char *name);
int VEXOCopyArgsExSetDestCodePage(VEXOCopyArgsEx *record, const char *name);

/* A zero-filled record; null, with a log line and no error code, when out of memory. */
VEXOCopyTHRArgs *VEXOCopyTHRArgsAlloc(void);
void VEXOCopyTHRArgsFree(VEXOCopyTHRArgs *record);
int VEXOCopyTHRSetCallbackSetProgress(VEXOCopyTHRArgs *record, VEXOCopyProgressFn function, void *data);
int VEXOCopyTHRSetCallbackErrReport(VEXOCopyTHRArgs *record, VEXOCopyErrReportFn function, void *data);
int VEXOCopyTHRSetCallbackIsCancel(VEXOCopyTHRArgs *record, VEXOCopyIsCancelFn function, void *data);
int VEXOCopyTHRSetCallbackRename(VEXOCopyTHRArgs *record, VEXOCopyRenameFn function, void *data);
int VEXOCopyTHRSetCallbackGetReadSize(VEXOCopyTHRArgs *record, VEXOCopyGetReadSizeFn function, void *data);
int VEXOCopyTHRSetCallbackReadWriteData(VEXOCopyTHRArgs *record, VEXOCopyTHRReadWriteDataFn function, void *data);
int VEXOCopyTHRSetCallbackCopyFile(VEXOCopyTHRArgs *record, VEXOCopyTHRFileFn function, void *data);
int VEXOCopyTHRSetCallbackCopyEA(VEXOCopyTHRArgs *record, VEXOCopyEAFn function, void *data);
int VEXOCopyTHRSetCallbackGetDirSize(VEXOCopyTHRArgs *record, VEXOCopyGetDirSizeFn function, void *data);

/* ---- Descriptors ------------------------------------------------------------------------------------------------ */

/* Writes all `len` bytes of `buf`. Returns `len` (its low 32 bits), or -1 with errno as write left it; a write that a
 * signal interrupts fails. A `len` below 1 is returned at once. Sets no error code. */
int VEXOWriteFileFd(int fd, const void *buf, int64_t len);

/* Copies `size` bytes from `srcFd`, which is to stand at its start, to where `dstFd` stands. Both descriptors stay open
 * and the caller's; `dstFd` is left behind the last byte written. Blocks have at most 8 MiB; holes of a sparse source
 * are skipped in the destination, and punched where it can. A `size` below 1 does nothing. The callbacks may be null.
 *
 * On failure the destination holds what was written before it. Codes: 0x0D00 negative descriptor, or a file system that
 * tells extents out of order; 0x0200 out of memory; 0x2600 a seek failed; 0x2A00 punching a hole or cutting to length
 * failed; 0xA600 cancelled; 0x0A00 the source ended early; 0x3B00 short write; reading: 0x0600 EIO or EBADF, 0x6C00
 * ENXIO, 0x0300 EFAULT, 0x1100 EHOSTDOWN, 0x8000 anything else (logged); writing: the same and 0xAA00 EFBIG, 0x2900
 * ENOSPC, 0x2400 EDQUOT. */
int VEXOCopyFileFd(int srcFd, int dstFd, int64_t size, VEXOCopyBareProgressFn progress,
                   VEXOCopyBareIsCancelFn isCancel);
/* The same with the read sizes of `ex` (null: 8 MiB each). */
int VEXOCopyFileFdEx(int srcFd, int dstFd, int64_t size, VEXOCopyBareProgressFn progress,
                     VEXOCopyBareIsCancelFn isCancel, VEXOCopyArgsEx *ex);
/* The same with the progress, isCancel and getReadSize callbacks of `args` (null: none). */
int VEXOFileOpCopyFileFd(int srcFd, int dstFd, int64_t size, VEXOCopyArgs *args);

/* ---- What a destination can hold ----------------------------------------------------------------------------------
 */

/* Writes `path` into `out` (`size` bytes, cut to fit) with "-" in place of each character of the last component that
 * FAT reserves: " * / : < > ? \ | line feed, carriage return. Codes: 0x0D00 null argument, `size` below 1, a relative
 * path or
 * "/"; 0x0200 out of memory. */
int VEXOStrReplaceFATReservedChar(const char *path, char *out, int size);

/* Opens `path` and makes sure that it is a regular file. Fills `st` and `xst` where given; at least one must be.
 * Returns the descriptor, the caller's to close, or -1: 0x0D00 null argument; 0x0900 with errno from open; no code when
 * the stat failed (logged) or the file is of another type. A pipe or device is not waited for: the descriptor has
 * O_NONBLOCK set, which says nothing to a regular file. */
int VEXOCopyOpenAndCheckIsRegular(const char *path, int openFlags, mode_t mode, struct stat *st, VLIBCStat *xst);

/* The largest file, in bytes, that a volume of type `type` takes at `path`; 0 when no limit is known. FAT: 4 GiB. The
 * cloud file system (22) is asked through its plug-in at each call. */
uint64_t _VEXOCopyFsFileSizeLimitGet(const char *path, int type);

/* 1 when `size` is over the limit (the one in `args` where it is not 0, else the volume's), with 0xA400 for FAT and
 * 0xAA00 otherwise; else 0. `args` may be null. */
int _VEXOCopyIsFileSizeTooLarge(VEXOCopyArgs *args, const char *path, int type, uint64_t size);

/* ---- Clones -------------------------------------------------------------------------------------------------------
 */

/* 1 when the appliance's switch for clone copies is on ("reflink_enable" reads "yes" in /etc/vexoinfo.conf), else 0. */
int VEXOFileCopyReflinkIsEnabled(void);
/* Turns the switch on or off. 0, or what the key/value functions answered on their failure; 0xD900 on an appliance
 * without btrfs, whose result is 0 when "support_btrfs" is absent and, kept so, its value's length when it is not
 * "yes". */
int VEXOFileCopyReflinkEnable(int on);
/* Whether the file or directory `src` can be cloned into the directory `dst`. Bit 1 of `flags` skips the comparison of
 * the nodatacow setting, bit 2 that of the compression setting. Returns 0 when it can; -1 a look-up failed (0x6C00 and
 * 0x1100 for a stat); -2 bad path or kind, or the share look-up failed; -3 not both on btrfs; -4 different volumes; -5
 * nodatacow differs; -6 compression differs; -7 a shared folder on either side is encrypted. */
int VEXOFileCopyIsCloneable(const char *src, const char *dst, uint32_t flags);

/* ---- One file -----------------------------------------------------------------------------------------------------
 *
 * Copies or moves one regular file with everything that belongs to it: mode bits, owner, DOS attributes (archive,
 * hidden, system), access, modification and creation time, ACL and extended-attribute store. `dst` is the path of the
 * new file, not a directory to put it into.
 *
 * What exists at the destination
 *
 *     overwrite    no rename callback              with a rename callback
 *      1           replaced                        replaced
 *      0           stays: success                  the callback names another destination; that one existing
 *     -1           stays: failure, 0xA300          too, or no answer, is a failure, 0x0800
 *
 * A move looks before it renames: there 0 and -1 end as without a callback. A destination that is the source itself is
 * left as it is: success. On FAT and exFAT the last component is first fixed up as VEXOStrReplaceFATReservedChar does.
 *
 * A move is a rename where source and destination are on one volume, with progress reported once as (size, 0). Across
 * volumes it is a copy, after which the source is removed, unless isCancel answers not 0 at that moment (a
 * VEXOCopyTHRArgs is not asked). A source that cannot be removed then is logged, and the move is a success.
 *
 * Owner: that of the source (ownerMode 1), else the uid and gid of the options; this only for root or where an entry
 * point says so. FAT (0) and type 12 keep no owners. Owner, DOS attributes, times, ACL and extended attributes that
 * the destination does not take are logged and do not fail the copy.
 *
 * A copy that fails or is cancelled after the destination was opened removes the destination, also one that was being
 * replaced. A cancelled copy is a success. Every failure but a null argument is reported once through errReport.
 *
 * Result: 0, or -1 with the last error:
 *     0x0D00 null path                       0x0600 a volume's type cannot be read (ENOENT, EIO, ENOTDIR)
 *     0x0200 out of memory                   0x0300 permission; a name the volume does not take (EINVAL)
 *     0x0700 source of a move missing        0x0800 the rename callback failed, or its name exists too
 *     0xA200 destination is a directory      0xA300 destination exists and is to fail
 *     0xA400 over FAT's limit                0xAA00 over the destination's limit, or EFBIG
 *     0x2900 no space                        0x2400 quota exceeded
 *     0x6C00 EIO, ENXIO                      0x1100 the storage is gone (EHOSTDOWN)
 *     0x8400 read-only volume                0xC300 name or path too long
 *     0x0900 destination cannot be opened for another reason, its directory missing among them (logged)
 *     0x8000 source missing or no regular file, destination no regular file, or any other errno (logged)
 *     0xFA00 copied or moved, but the owner was not set (VEXOFileCopy_r and flag 16 of VEXOFileOpCopyFile only)
 *     and those of the transfer (VEXOCopyFileFd), or what a readWriteData callback set
 *
 * Side effects on the process: VEXOFileCopy, VEXOFileCopyEx, VEXOFileReflinkCopy, VEXOFileCopy_r and VEXOFileOpCopyFile
 * have the umask at 0 while they copy, so that a new file gets exactly the source's mode bits. While the times are set
 * the effective user is root where the process may become it (not with VEXOFileCopy_r and flag 16).
 *
 * Example: keep every version of a report that a service drops into a folder.
 *
 *     VEXOCopyOpt options = {0};
 *     options.ownerMode = 1;
 *     options.rename = Default_GenerateNewName;   // report.pdf, report (1).pdf, report (2).pdf ...
 *     if (VEXOFileCopy("/volume1/inbox/report.pdf", "/volume1/archive/report.pdf", &options) != 0)
 *         log_failure(VLIBCErrGet());
 */

/* Copies or moves a file as `opt` says; null: a plain copy that leaves an existing destination. After a success the
 * source's archive bit is cleared (cleanArchive) and the copy made to inherit the ACL of its directory
 * (enforceInherit, logged where it fails). */
int VEXOFileCopy(const char *src, const char *dst, VEXOCopyOpt *opt);

/* The same with the callbacks of `ex` (null: none). A copyFile callback there takes the place of the copy: it gets
 * (src, dst, opt, -1, -1, 1, ex), and a result other than 0 is returned as it is. */
int VEXOFileCopyEx(const char *src, const char *dst, VEXOCopyOpt *opt, VEXOCopyArgsEx *ex);

/* The same, sharing the source's extents where both lie on btrfs (type 3) and the kernel can; the data are copied where
 * not. Asks neither VEXOFileCopyReflinkIsEnabled nor VEXOFileCopyIsCloneable. A move across btrfs volumes shares
 * extents whichever function is called. */
int VEXOFileReflinkCopy(const char *src, const char *dst, VEXOCopyOpt *opt, VEXOCopyArgsEx *ex);

/* The same for callers that run several copies at once and tell them apart by the user data in `thr` (null: no
 * callbacks). The copy is made with the caller's own rights: the owner is set whoever the caller is, the times without
 * becoming root, and an owner that was to be set and could not be makes the result -1 with 0xFA00 although the file has
 * been copied or moved; that is not reported through errReport. A copyFile callback gets (data, src, dst, optR, -1, -1,
 * 1, thr). */
int VEXOFileCopy_r(const char *src, const char *dst, VEXOCopyOptR *optR, VEXOCopyTHRArgs *thr);

/* For callers that know the types of the two volumes (-1: looked up) and go on with many files: no copyFile callback,
 * umask, archive bit or ACL inheritance. `spare` is not read. */
int VEXOCopyFileExI(const char *src, const char *dst, VEXOCopyOpt *opt, int srcType, int dstType, int spare,
                    VEXOCopyArgsEx *ex);
int VEXOCopyFileI(const char *src, const char *dst, VEXOCopyOpt *opt, int dstType, int spare);

/* A rename callback: `path` with " (1)" to " (98)" before its extension, the first that does not exist, in `out` of
 * `size` bytes. Returns 0, or -1: 0x0D00 null argument or a name that does not fit; 0x0200 out of memory; no code when
 * all 98 exist. `out` may be `path`. */
int Default_GenerateNewName(const char *path, char *out, int size);

/* Copies or moves a file as `flags` say, with the owner, types, size limit and callbacks of `args` (null: user 1024,
 * group 100, types looked up, no callbacks). Types of -1 are looked up and written back into `args`, a negative answer
 * for the destination among them.
 *
 *        1  an existing destination: fail with 0xA300 (wins over 2)
 *        2  replace an existing destination; with neither 1 nor 2 it stays, and that is a success
 *        4  move
 *        8  give the copy the source's owner and group, not the record's
 *       16  with the caller's own rights, as VEXOFileCopy_r: 0xFA00 for an owner not set
 *       32  copy the ACL and the archive ACL
 *       64  after a success make the copy inherit its directory's ACL
 *      256  leave the extended-attribute store where it is
 *      512  carry everything in the source's EA directory along
 *     1024  share extents where the volume can
 *
 * A copyFile callback of `args` takes the place of the copy and gets (data, src, dst, flags, args); a result other than
 * 0 is returned as it is. After a 0 the source's archive bit is cleared where `args` has cleanArchive set.
 *
 * Example: move a file to another volume as the user that owns the service.
 *
 *     VEXOCopyArgs *args = VEXOCopyArgsAlloc();
 *     VEXOCopyArgsSetUserUID(args, uid);
 *     VEXOCopyArgsSetUserGID(args, gid);
 *     int result = VEXOFileOpCopyFile("/volume1/in/a.bin", "/volume2/done/a.bin", 2 | 4, args);
 *     VEXOCopyArgsFree(args);
 */
int VEXOFileOpCopyFile(const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *args);

/* ---- Trees --------------------------------------------------------------------------------------------------------
 *
 * Copies the directory `src` with everything in it to the path `dst`: files through the single-file copies above, links
 * made anew, directories with their attributes, ACL, metadata, owner and times. An existing destination directory is
 * merged into; what happens to a file that is there says the conflict policy. With a move the whole tree is renamed
 * where that is possible, else each entry is removed from the source as it arrives.
 *
 * Not carried: "@eaDir", "@tmp" and "@sharebin" in any letter case and names that begin with "._" (what they hold comes
 * with the file it belongs to), devices, FIFOs and sockets. A symbolic link bound for a volume that cannot hold one
 * ends the whole tree with -1 and no error code.
 *
 * An entry that fails is passed over, and the result is still 0, unless stop-on-error is set (then the tree ends there,
 * except where the entry vanished meanwhile: 0x0600; to VEXOFileOpCopyDir a vanished file is a failure like others,
 * 0x8000). Nothing is rolled back. A tree that the cancel callback stops is a 0: it holds what was copied by then.
 *
 * A destination inside the source is not copied into itself: its top directory is passed over. It is known by its
 * inode, on type 12 by its resolved path. A tree that is moved onto itself, by another name, stays.
 *
 * Slashes behind `src` and `dst` are not part of the names. A destination whose last component is "." or "..", or that
 * is
 * "/", has no name that a store could belong to: 0x0D00, and nothing is touched; so has the source of a move. To copy
 * from "DIR/." is to copy from "DIR".
 *
 * A new directory gets the source's full mode; set-user-id and set-group-id only where its owner has been set.
 *
 * A walk holds at most 16 directories of the source and one of the destination open, and a file takes up to four more
 * descriptors while it is copied. Of the directories further up it keeps in memory what it has not read yet, the name
 * and two bytes an entry, and opens them again on the way back: one that is another by then is not gone on with
 * (0x8000). Running out of descriptors or memory fails the entry. A level takes little stack: a tree may be as deep as
 * a path of 4095 bytes. An entry whose path would be longer, at the source or the destination, fails with 0xC300; the
 * report names it by the first 4095 bytes of its source path.
 *
 * Codes of the directories, beside those of the files: 0x0D00 null argument; 0x0600 a volume's type cannot be read, or
 * the destination's parent is missing; 0x0300 permission; 0x0700 the source is missing; 0x6C00 EIO or ENXIO; 0x1100 the
 * storage is gone; 0x8400 read-only destination; 0x2900 no space; 0x2400 quota; 0xC300 name or path too long; 0xA000
 * the destination is there and no directory; 0x2700 a stat failed; 0x0200 out of memory; 0x8000 anything else.
 * errReport hears of a source that cannot be opened or read to its end, of a destination that cannot be made, of one
 * that cannot be finished for want of descriptors, and of an entry whose path is too long.
 *
 *     VEXOCopyOpt options = {0};
 *     options.ownerMode = 1;
 *     options.copyAcl = 1;
 *     VEXOFileCopyDirectory("/volume1/photos", "/volume2/photos", &options);
 */

/* Looks the volumes' types up, and clears the umask while it runs. `opt` and `ex` may be null. */
int VEXOFileCopyDirectory(const char *src, const char *dst, VEXOCopyOpt *opt);
int VEXOFileCopyDirectoryEx(const char *src, const char *dst, VEXOCopyOpt *opt, VEXOCopyArgsEx *ex);
/* The same, cloning the files where both volumes are btrfs. */
int VEXOFileReflinkCopyDirectory(const char *src, const char *dst, VEXOCopyOpt *opt);
/* With the types known; the umask is the caller's. `spare` is not read. */
int VEXOCopyDirectoryI(const char *src, const char *dst, VEXOCopyOpt *opt, int srcKind, int dstKind);
int VEXOCopyDirectoryExI(const char *src, const char *dst, VEXOCopyOpt *opt, int srcKind, int dstKind, int spare,
                         VEXOCopyArgsEx *ex);

/* The same by a flag word, the one of VEXOFileOpCopyFile and: 0x80 stop on error; 0x200 carry everything in "@eaDir";
 * 0x800 relocate, which copies the tree into "@tmp" beside the destination, empties the destination, moves the copy
 * into place with /bin/mv and then removes the source, unless 0x4 is set, which here keeps it. `args` may be null;
 * types and size limit that it does not tell are looked up and written into it, and the types hold for the whole tree.
 * Clears the umask while it runs. A relocation asks isCancel once more before it commits.
 *
 * A relocation that fails leaves the source as it was and removes the staged copy: 0x3C00 the staging directory cannot
 * be made; 0x3900 a tree cannot be emptied; 0x3B00 copying failed, or a path in the staging directory would be too
 * long; 0x0D00 source, destination and staging directory hold one another, by path, link or mount, or one has no name
 * of its own (nothing is touched), or the source was exchanged meanwhile (the destination stays); 0x3A00 the final move
 * failed (the destination is empty then); 0xA600 cancelled, with the destination as it was. Where the source is not
 * known to be whole any more, because it is another directory or lacks what was staged of it, the staged copy stays,
 * and a log line names it. What the copy passed over (see above) goes with the source: to be sure, keep the source and
 * compare. */
int VEXOFileOpCopyDir(const char *src, const char *dst, uint32_t flags, VEXOCopyArgs *args);

/* Relocates a shared folder to another volume as VEXOFileOpCopyDir does, with `opt` for the copy, except that it
 * copies even where `opt` asks for a move; the moved directory gets mode 0777. `keepSource` not 0: the source stays. 0,
 * or -1 with the codes above. */
int VEXOCopyDirToExternal(const char *src, const char *dst, int keepSource, VEXOCopyOpt *opt);

/* Makes an empty directory at `path`, in place of one that is there with everything in it (`keepExisting` not 0: that
 * one stays as it is). 0, or -1: 0x0D00 null or empty path; 0x3900 the old one cannot be removed; 0x2900 no space;
 * 0x3C00. */
int VLIBCopyCreateTmpDir(const char *path, int keepExisting, mode_t mode);

/* Removes the tree at `path` with /bin/rm, and what belongs to it. A path outside "/volume…" is removed only when it is
 * a directory. 0, also when the removal failed, which only the last error tells (0x0B00); -1 for a null path (0x0D00).
 */
int VLIBCopyRemoveDir(const char *path);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
