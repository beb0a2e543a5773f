/* What the library calls of the appliance's core library, libvexocore.so.7: the last error, key/value files, running a
 * program, the extended stat and time calls, string lists, and settings of a volume or share.
 *
 * Conventions: results are 0 or a count for success and negative for failure unless a function says otherwise; paths
 * and texts are NUL-terminated and stay the caller's; what a function allocates is released by its own free function.
 */
#ifndef VEXOFILEOP_PLATFORM_CORE_H
#define VEXOFILEOP_PLATFORM_CORE_H

#include <stdint.h>
#include <sys/stat.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* The last error, one per thread. `file` is kept as a pointer: it must live as long as the process. */
void VLIBCErrSetEx(uint32_t code, const char *file, uint32_t line);
uint32_t VLIBCErrGet(void);
const char *VLIBCErrorGetFile(void);
uint32_t VLIBCErrorGetLine(void);

/* Reads the value of `key` from a key/value file (lines key="value" or key=value) into `value` of `size` bytes, cut to
 * fit. `flags` is 0. Returns the value's length (1 or more); 0 when the key is absent or its value empty; negative with
 * errno when the file cannot be read. */
int VLIBCFileGetKeyValue(const char *file, const char *key, char *value, int size, int flags);

/* Writes `key` into a key/value file: its line is replaced, or one is added, the others stay as they are. `format`
 * takes key and value, for example "%s=\"%s\"\n"; null stands for that. Returns a positive number when written, 0 or
 * negative with errno when not. */
int VLIBCFileSetKeyValue(const char *file, const char *key, const char *value, const char *format);

/* Runs `program` with the const char * arguments that follow, ended by a null, and waits for it. Returns its exit
 * status; negative when it could not be run or was ended by a signal. */
int VLIBCExec(const char *program, ...);

/* What to look up beside the plain stat: the "fields" mask. */
enum { VLIBC_STAT_BASIC = 1, VLIBC_STAT_ATTRIBUTES = 2, VLIBC_STAT_CREATE_TIME = 8 };
/* The bits of VLIBCStat.attributes. */
enum { VLIBC_ATTR_ARCHIVE = 0x2, VLIBC_ATTR_HIDDEN = 0x4, VLIBC_ATTR_SYSTEM = 0x8, VLIBC_ATTR_LOCKED = 0x20 };

typedef struct VLIBCStat {
    struct stat st;
    uint32_t attributes;        /* VLIBC_ATTR_*; filled when VLIBC_STAT_ATTRIBUTES is asked for */
    struct timespec createTime; /* filled when VLIBC_STAT_CREATE_TIME is asked for */
} VLIBCStat;

/* The extended stat of a path, of a path without following a last symbolic link, of a descriptor. Returns 0, or -1 with
 * errno. */
int VLIBCFileStat(const char *path, uint32_t fields, VLIBCStat *out);
int VLIBCFileLStat(const char *path, uint32_t fields, VLIBCStat *out);
int VLIBCFileFStat(int fd, uint32_t fields, VLIBCStat *out, int reserved /* 0 */);

/* Sets the times of a file: `times` holds `count` (3) values, access, modification and creation time. Returns 0, or -1
 * with errno (EOPNOTSUPP: the volume keeps no creation time). */
int VLIBCFileUTime(const char *path, int count, const struct timespec *times);

/* 1 when `path` is an existing directory, else 0. */
int VLIBCFileCheckDir(const char *path);

/* Bytes in the files of a tree; negative with errno on failure. */
int64_t VLIBGetFullDirSize(const char *path);

typedef struct VLIBCSzList {
    int capacity, count;
    char **items;
} VLIBCSzList;

/* A list with room for `capacity` items; null when out of memory. */
VLIBCSzList *VLIBCSzListAlloc(int capacity);
/* Adds a copy of `text`, growing the list (which may move it). Returns the index of the new item, or -1. */
int VLIBCSzListPush(VLIBCSzList **list, const char *text);
/* The item, owned by the list; null when `index` is out of range. */
const char *VLIBCSzListGet(const VLIBCSzList *list, int index);
void VLIBCSzListRemoveAll(VLIBCSzList *list);
void VLIBCSzListFree(VLIBCSzList *list);

/* Settings of a btrfs file or directory: 0 or more, equal numbers for equal settings; negative on failure. */
int VLIBFSGetBTRFSCompression(const char *path);
int VLIBFSGetBTRFSNodatacow(const char *path);

/* Whether a share is encrypted. Returns 0, or negative on failure. */
struct VEXOShare;
int VLIBShareIsEncryptionGet(const struct VEXOShare *share, int *encrypted);

/* Hooks in place of the appliance kernel's DOS-attribute interface, for a platform whose kernel has none: when a
 * library of the process defines them, they are called in place of fcntl(fd, command) with the commands 0x201 (clear
 * archive), 0x202 (archive), 0x203 (hidden), 0x204 (system) and 515 (hide a file on exFAT), and in place of
 * syscall(803, path, command) with the commands 514 (archive), 515 (hidden), 518 (not hidden), 521 (unlock) and 522
 * (lock). Same results: -1 with errno on failure. */
int VLIBCKernelAttrFcntl(int fd, int command);
int VLIBCKernelAttrCall(const char *path, int command);

/* Optional, and declared weak by the library: the same as the functions of a path, on a file that the library holds
 * open, which spares a walk along the path. Where a platform does not define one, the function of the path is called.
 * VLIBCFileFUTime is VLIBCFileUTime, VLIBCKernelAttrFCall is VLIBCKernelAttrCall. The descriptor may be open for
 * reading or for writing only. */
int VLIBCFileFUTime(int fd, int count, const struct timespec *times);
int VLIBCKernelAttrFCall(int fd, int command);

/* Optional and weak too, for a platform that keeps DOS attributes and creation times in an attribute of the file, its
 * record. Where they are not defined, every "user." attribute is copied as any other.
 *
 * VLIBCFileIsRecord: 1 when the attribute of that name is the platform's record, else 0.
 *
 * VLIBCFileRecordCarry: what the copy of that attribute comes to, after the DOS attributes and the times of `dst` have
 * been set. What the record of `dst` says stays; what it does not say, and bits that VLIBCStat has no place for, it
 * gets from that of `src`. Each file is an open descriptor, or a path where the descriptor is negative. Returns 0, or
 * -1 with errno.
 *
 * VLIBCFileFComplete: what VLIBCFileFUTime, VLIBCKernelAttrFcntl and VLIBCKernelAttrFCall say one after the other, at
 * once, for a file or directory that the library has just made: access, modification and creation time, and the
 * attributes of the mask `attributes` (VLIBC_ATTR_*). `mode` tells which of the two it is, in the bits of S_IFMT.
 * `srcFd` is the file whose record is carried along, or negative. Returns 0 when all of it is set; -1 with errno when
 * not, and then the library calls the functions one by one. A platform that defines it allows the library to take the
 * locked state of the source from the extended stat that was made when it was opened. */
int VLIBCFileIsRecord(const char *name);
int VLIBCFileRecordCarry(const char *src, int srcFd, const char *dst, int dstFd);
int VLIBCFileFComplete(int srcFd, int dstFd, mode_t mode, const struct timespec *times, uint32_t attributes);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
