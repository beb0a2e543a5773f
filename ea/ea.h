/* The extended-attribute store: what belongs to a file beside its data, wherever its volume keeps it.
 *
 * Conventions of this header
 *
 *  1. Results are 0 or a count for success and -1 for failure unless a function says otherwise. The cause of a failure
 *     is the last error, read with VLIBCErrGet() (platform/core.h); each function lists the codes it raises.
 *  2. Paths are NUL-terminated byte strings of at most 4095 bytes and stay the caller's. Lengths of buffers count the
 *     terminating NUL.
 *  3. Nothing is locked inside a process. What a call changes in the process while it runs (effective user, working
 *     directory) it puts back, but callers serialise calls that do so; each function says what it changes.
 *  4. Failures are logged through syslog, one line each, as "<source>:<line> <text>".
 */
#ifndef VEXOFILEOP_EA_EA_H
#define VEXOFILEOP_EA_EA_H

#include "copy/copy.h"
#include "platform/core.h"

#include <fcntl.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- Where companions are -----------------------------------------------------------------------------------------
 *
 * What belongs to "<dir>/<base>" and has no place in the file system is kept in companion files. docs/formats.md shows
 * the layouts:
 *
 *     <dir>/@eaDir/                      the hidden directory with the companions of everything in <dir>
 *     <dir>/@eaDir/<base'>@<stream>      current layout; <stream> is "VexoEAStream" or "VexoResource"
 *     <dir>/@eaDir/<base>/<stream>       older layout, a directory a file
 *     <dir>/._<base>                     AppleDouble
 *
 * <base'> is <base>, shortened to the volume's name limit less 13 bytes where it is longer. A path without "/" is in
 * the working directory. One trailing "/" of a path is ignored. These functions touch nothing; they only ask the volume
 * for its name limit. They log nothing.
 *
 * Example: where the attributes of a photo are.
 *
 *     char stream[4096];
 *     if (VEXOEAPath(1, "/volume1/photo/a.jpg", "VexoEAStream", stream, sizeof stream, 0) == 0)
 *         puts(stream);       // /volume1/photo/@eaDir/a.jpg@VexoEAStream
 *
 * `out` is the caller's, of `outLen` bytes; nothing is written beyond it and it is NUL-terminated after a success. A
 * buffer that passes a function's length check and yet is one byte short of the text gets the text cut by that byte.
 */

/* "<dir>/@eaDir" when `dirOnly` is not 0, else "<dir>/@eaDir/<base>". Fails with 0x0D00 and errno ENOENT (null path or
 * buffer, empty path), 0x0200, 0xC300 and errno ENAMETOOLONG (the path with 7 bytes more is longer than 4095 bytes or
 * than `outLen`, in either form). */
int VEXOEADirPath(int dirOnly, const char *path, char *out, int outLen);

/* The entry that callers use: `kind` 0 is VEXOEAPathNoADFS, 1 is VEXOEAADPath (which ignores `stream`, though it must
 * not be null). Fails with 0x0D00 for a null path or stream and any other kind, else as those do. */
int VEXOEAPath(int nameMode, const char *path, const char *stream, char *out, int outLen, int kind);

/* A companion in "@eaDir". `nameMode` 1: "<dir>/@eaDir/<base'>@<stream>"; 0: "<dir>/@eaDir/<base>/<stream>"; any other:
 * "<dir>/@eaDir/<stream>". Fails with 0x0D00 (null path, stream or buffer, empty path), 0x0200, 0xC300 and errno
 * ENAMETOOLONG (path and stream with 9 bytes more in mode 1, else 8, are longer than 4096 bytes or than `outLen`). */
int VEXOEAPathNoADFS(int nameMode, const char *path, const char *stream, char *out, int outLen);

/* "<dir>/._<base>", cut in silence where it does not fit. Fails with 0x0D00 (null path or buffer, `outLen` below 1),
 * 0x0200, 0xC300 (a base of more than 253 bytes; errno is not set). */
int VEXOEAADPath(const char *path, char *out, int outLen);

/* ---- Names that are not user data ---------------------------------------------------------------------------------
 *
 *     hidden directories  "@eaDir", "@tmp", "@sharebin" in any case
 *     veto files          those, ".", "..", and what begins with ".VEXOPPHDB"
 *     hidden files        those, ".DS_Store", and what begins with "._"
 *     hidden names        what contains ":"
 */

/* 1 for the name of a hidden directory, else 0. An absolute path is judged by its last component; a relative one with
 * several components never is hidden. -1 with 0x0D00 (null), 0x0200, 0x9A00 (no last component). */
int VEXOEAIsHiddenDir(const char *nameOrPath);
/* The same for a name alone. -1 with 0x0D00 for null. */
int VEXOEAIsHiddenDirName(const char *name);
/* 1 or 0; 0 for null. */
int VEXOEAIsVetoFile(const char *name);
int VEXOEAIsHiddenFile(const char *name);
int VEXOEAIsHiddenName(const char *name);

/* Adds the names of the hidden directories to a list of the caller's. Returns 0; -1 with 0x0D00 for a null list, or
 * when the list cannot grow. */
int VEXOEAHiddenDirGet(VLIBCSzList **list);

/* Whether `path` is an AppleDouble file that belongs to a file beside it: 0 it is; -1 it cannot be told (0x0D00 for a
 * null or empty path, 0x0200; 0x2700 what it belongs to cannot be looked at); -2 its name does not begin with "._"; -3
 * it is no regular file, cannot be read (errno tells why, and is 0 otherwise) or does not begin with the AppleDouble
 * magic; -4 there is nothing beside it that it belongs to. The answers below -1 set no error. */
int VEXOEACheckADFile(const char *path);

/* ---- The stream file ----------------------------------------------------------------------------------------------
 *
 * "<base>@VexoEAStream" holds a file's Finder Info, its named attributes and, behind them, a resource fork: AppleDouble
 * version 2 with an "ATTR" block, big-endian; docs/formats.md walks through one byte by byte. A handle holds the header
 * and the records in host order; values stay in the file.
 *
 *  1. The caller opens and closes the descriptor; a handle borrows it and moves its position. A handle belongs to one
 *     thread.
 *  2. The lock is fcntl's, on the whole file and between processes: F_RDLCK (0) shared, F_WRLCK (1) exclusive, F_UNLCK
 *     (2). It is never waited for; a caller that gets 0x0400 decides itself whether to try again. As such locks go, it
 *     is lost when the process closes any descriptor of the file, or another handle on it.
 *  3. Attribute names are byte strings of at most 254 bytes, an empty one among them; values have at most 2 GiB - 1
 *     bytes, and a file has at most 65535 attributes. Where a file has a name twice, the last record counts.
 *  4. A change rewrites header, records and values and moves the resource fork. What can refuse it is asked before the
 *     first byte is written: 0x0D00 for sums that do not fit the format's 32-bit fields, 0x0A00 for a file that is not
 *     what its numbers say, 0x0200 for memory, 0x0B00 for a volume without room or a file size limit. Such a refusal
 *     leaves file and handle as they were. A failure to write (0x0B00, 0x2600, 0x2A00) is undone, so that file and
 *     handle are then as they were too, an empty file empty. Where the volume refuses that as well, the file is
 *     damaged and the handle no longer matches it: close it.
 *  5. A file that lost its last bytes is changed all the same where the change has no use for them: the value that is
 *     missing is removed, written over or cut before the place where it ends. What would have to read them fails with
 *     0x0A00. A resource fork that ends early is moved as far as it is there.
 *  6. All functions fail with 0x0D00 for a null handle or name or a handle without a descriptor.
 *
 * Example: store a comment.
 *
 *     int fd = VEXOEAOpen(1, "/volume1/photo/a.jpg", "VexoEAStream", O_RDWR | O_CREAT, 0);
 *     VEXOEAS *eas = fd < 0 ? NULL : VEXOEASOpen(fd, F_WRLCK);
 *     if (eas != NULL) {
 *         if (VEXOEASWrite(eas, "comment", "sunset", 6, 0, 1) != 6)
 *             fprintf(stderr, "not stored: 0x%04X\n", VLIBCErrGet());
 *         VEXOEASClose(eas);
 *     }
 *     if (fd >= 0)
 *         close(fd);
 */

typedef struct __attribute__((packed)) {
    uint32_t id, offset, length;
} VEXOEASEntry;
typedef struct __attribute__((packed)) { /* 120 bytes, host order */
    uint32_t magic, version;
    char filler[16];
    uint16_t entryCount;     /* as read; written back unchanged */
    VEXOEASEntry entries[2]; /* [0] Finder Info (id 9), [1] resource fork (id 2), whatever their order in the file */
    uint8_t finderInfo[32];
    uint8_t padding[2];
    uint32_t attrMagic, debugTag;
    uint32_t totalSize;             /* where the values end and the resource fork begins */
    uint32_t dataStart, dataLength; /* of the values, which lie back to back in record order */
    uint8_t reserved[12];
    uint16_t flags, attrCount;
} VEXOEASHeader;
typedef struct {
    uint32_t offset, length; /* of the value, from the start of the file */
    uint16_t flags;
    uint8_t nameLength; /* counts the terminating NUL */
    char *name;         /* owned by the handle, NUL-terminated */
} VEXOEASRecord;
typedef struct VEXOEAS {
    VEXOEASHeader header;
    VEXOEASRecord *records; /* `capacity` slots, of which header.attrCount are in use */
    int32_t fd, capacity, lockState;
} VEXOEAS;

/* Opens a stream on `fd` with a lock. An empty file gives a handle of a new stream, and stays empty until something is
 * written. Returns the handle, which the caller closes with VEXOEASClose; null with 0x0D00 (negative descriptor, other
 * lock type, more than 13 entries), 0x0200, 0x0400, 0x0A00 (unreadable, shorter than what it says it holds). */
VEXOEAS *VEXOEASOpen(int fd, int lockType);

/* Frees the handle in any case and releases its lock. Returns 0, or -1 with 0x0400 when the lock was not released. */
int VEXOEASClose(VEXOEAS *);

/* Changes the lock, at once or not at all. -1 with 0x0400, 0x0D00 (also for another lock type). */
int VEXOEASLockSet(VEXOEAS *, int lockType);

/* fcntl(F_GETLK) on the stream's descriptor: the caller's record says what to ask for, and gets the answer. -1 with
 * 0x2A00. */
int VEXOEASLockGet(VEXOEAS *, struct flock *);

/* The index of the record with exactly that name; -1 with 0x2000. */
int VEXOEASSearch(VEXOEAS *, const char *name);

/* Reads at most `size` bytes of a value from `offset` on into `buf`. Returns how many, 0 at and behind its end; with
 * `size` 0 the length of the whole value (`buf` must not be null all the same, and a value that ends before `offset`
 * gives 0). Needs a lock of either kind. -1 with 0x0300 (no lock), 0x2000, 0x2600, 0x0A00, 0x0D00 (a length over
 * 2 GiB - 1 bytes that the result cannot tell). */
int VEXOEASRead(VEXOEAS *, const char *name, void *buf, uint32_t size, uint32_t offset);

/* Writes `size` bytes at `offset` of a value. `flags`: 1 an existing attribute may be changed, 2 it must exist. A value
 * grows as needed, zeros filling the gap, and never gets shorter; the attribute becomes the last one.
 *
 * An attribute that exists, without flag 1: errno is EEXIST and nothing is written; the result is -1 with 0x0D00, but 0
 * when `size` is 0, so that callers can ask whether it exists. One that is missing, with flag 2: -1 with errno ENOENT
 * and 0x2000.
 *
 * Returns `size`. Needs the write lock. -1 with 0x0300, 0x0D00 (also: null data with a size, a name of more than 254
 * bytes, more than 65535 attributes, a size over 2 GiB - 1), 0x0200, 0x0A00, 0x2600, 0x0B00, 0x2A00. An empty name is
 * not refused: what another stream holds under it can be carried over.
 */
int VEXOEASWrite(VEXOEAS *, const char *name, const void *data, uint32_t size, uint32_t offset, int flags);

/* Gives a value a new length; new bytes are zeros. The attribute becomes the last one. Deliberately the resource fork
 * is not moved and the file not shortened, though the header then says that the fork follows the values. In a stream
 * that has a fork (EASGetRForkLocation tells) any other length than the present one therefore destroys it: a greater
 * one writes zeros over its beginning, and after a smaller one the next write or removal, that of the same value among
 * them, moves bytes that are not the fork's. There, VEXOEASRemove and then VEXOEASWrite give a value a new content, and
 * a write behind its end makes it longer: both move the fork. Needs the write lock. -1 with 0x0300, 0x2000, 0x0D00,
 * 0x0200, 0x0A00, 0x2600, 0x0B00. */
int VEXOEASTruncate(VEXOEAS *, const char *name, uint32_t length);

/* Removes an attribute; one that is not there is no failure and leaves the file alone. The file gets shorter. Needs the
 * write lock. -1 with 0x0300, 0x0200, 0x0A00, 0x2600, 0x0B00, 0x2A00. */
int VEXOEASRemove(VEXOEAS *, const char *name);

/* Adds the names to a list of the caller's, in record order. Returns how many; -1 with 0x0D00 (null list) or 0x0200,
 * and the list is then empty. */
int VEXOEASEnum(VEXOEAS *, VLIBCSzList **list);

/* Adds `count` empty record slots, 5 when it is 0. -1 with 0x0D00 (also for a negative count), 0x0200 and the slots as
 * they were. */
int VEXOEASAllocEntry(VEXOEAS *, int count);

/* For writers: reads all other values, back to back, into `buf` of `bufLen` bytes. With `remove` the record leaves the
 * handle, and values and data start move up; without it the record becomes the last and its value follows the others in
 * `buf`. The file is not written. -1 with 0x0D00 (also for an index out of range or a null buffer), 0x0100 (a buffer
 * smaller than what is read), 0x0A00, 0x2600. */
int VEXOEASUpdateEntry(VEXOEAS *, int index, void *buf, uint32_t bufLen, int remove);

/* Writes header and records from the handle, after it has set the sizes and offsets that follow from where the values
 * end; Finder Info is written at offset 50, wherever it was read from. The values are not touched. -1 with 0x0D00 (also
 * for sums that do not fit), 0x2600, 0x0B00. */
int VEXOEASWriteHeader(VEXOEAS *);

/* Makes the file durable (fsync). -1 with 0x2A00. */
int VEXOEASFlush(VEXOEAS *);

/* Copies every attribute of one stream into another with a value's write at offset 0, so that a longer value of the
 * same name keeps its tail. Takes a read lock on the source and a write lock on the destination, and releases both; a
 * stream onto itself is nothing to do. Returns 0; -1 with 0x0D00 or what VEXOEASOpen raises; -1 - n when n attributes
 * failed, with the last one's 0x0100 (memory), 0x0A00 (reading) or 0x0B00 (writing): the others are copied. */
int EASWriteToFd(int srcFd, int dstFd);

/* How many attributes a stream has, 0 for an empty file. Takes and releases a read lock; a lock that the process holds
 * on the file is gone afterwards. -1 with 0x0D00 (negative descriptor, more than 13 entries), 0x0200, 0x0400, 0x0A00.
 */
int EASGetAttrCount(int fd);

/* Moves `length` bytes of resource fork inside the file; the places may overlap. The file is extended where needed and
 * never cut; a fork that ends early is moved as far as it goes. What a failing move had moved is put back. -1 with
 * 0x0A00, 0x0B00 (each with a log line; towards the end also 0x0A00 without one, for a length over that of the file),
 * 0x2600, 0x2A00. */
int EASMoveRFork(VEXOEAS *, uint32_t newOffset, uint32_t oldOffset, uint32_t length);

/* Which of the header's two entries is the Finder Info: 0 or 1; -1 with 0x0A00 when neither is. */
int EASGetFinderInfoIndex(const VEXOEASHeader *);

/* Where the resource fork lies (behind the Finder Info entry) and how long it is. Returns 0; -1 with 0x0A00 (no Finder
 * Info entry), 0x0D00 (an offset that does not fit 32 bits). */
int EASGetRForkLocation(const VEXOEAS *, uint32_t *oldOffset, uint32_t *length);

/* ---- AppleDouble metadata and Finder Info -----------------------------------------------------------------------
 *
 * What Mac clients keep about a file is an AppleDouble header. File-EA volumes (types 2 and 3) keep it as the attribute
 * "user.netatalk.Metadata", always 402 bytes; EA-directory volumes at the start of the file's resource file,
 * "<dir>/@eaDir/<base>@VexoResource". docs/formats.md shows both.
 *
 * Example: the Finder Info of a file on a file-EA volume, brought up to date first.
 *
 *     VEXOEAAdouble record;
 *     if (EACheckNeedSync(path) == 1)
 *         VEXOEAFileEAFSFinfoEASync(path, 0);
 *     if (VEXOEAFileEAAdoubleRead(path, &record) == 0)
 *         show(record.raw + record.entries[9].offset, 32);
 */

typedef struct {
    uint64_t offset, length; /* bytes from the start of the header; offset 0: no such entry */
} VEXOEAAdoubleEntry;
/* A parsed header. Slots 0 to 15 of the table are the entry ids (2 resource fork, 4 comment, 8 file dates, 9 Finder
 * Info, 14 file-server info); 16 to 19 the private ids 0x80444556 (device), 0x80494E4F (inode), 0x8053594E
 * (synchronisation) and 0x8053567E (file id). `raw` holds the bytes that were parsed, then zero bytes. */
typedef struct {
    uint32_t magic, version;
    VEXOEAAdoubleEntry entries[20];
    uint8_t raw[1024];
} VEXOEAAdouble;

/* Parses `len` bytes, at most 1024, into the caller's record. No entry that it leaves in the record begins behind the
 * 1024 bytes, and none but the resource fork ends there. An id that comes twice counts as the last one says.
 * Codes: 0x0D00 bad argument or bad entry; 0x0A00 no AppleDouble version 2 header. After a failure the record holds
 * what was read so far. */
int VEXOEAAdoubleRead(const void *buf, int len, VEXOEAAdouble *adouble);
/* Reads the metadata attribute of a file. 0: found, 402 bytes with its eight entries; 1: there is none, or no file; -1.
 * Codes: 0x0D00 null argument; 0x0A00 not readable, of another size, malformed, or with other entries. */
int VEXOEAFileEAAdoubleRead(const char *path, VEXOEAAdouble *adouble);
/* Reads the first 741 bytes of a file's resource file as a header. 0: found; 1: there is none, or it is shorter; -1.
 * Codes: 0x0D00 null argument or bad entry; 0x0900 open failed; 0x0A00 read failed or no header; those of VEXOEAPath.
 */
int VEXOEAEADirAdoubleRead(const char *path, VEXOEAAdouble *adouble);
/* Stores `size` bytes (0 to 1024) as the metadata attribute of a file, whether or not it has one.
 * Codes: 0x0D00 bad argument; 0x0300 refused (EPERM); 0x0B00 any other failure. */
int VEXOEAFileEAAdoubleFlush(const void *value, int size, const char *path);
/* Writes `len` bytes (0 to 1024) over the start of a file's resource file; what lies behind stays. The file is made
 * where it is missing (mode 0777 less the umask), its directory is not; one made here is removed when the write fails.
 * Codes: 0x0D00 bad argument; 0x0900 open failed; 0x0B00 write failed or short; those of VEXOEAPath. */
int VEXOEAEADirAdoubleFlush(const void *buf, int len, const char *path);
/* Writes the 32 bytes of Finder Info of a stream handle to their place in its file. Needs the write lock.
 * Codes: 0x0D00 bad handle or seek failed; 0x0300 no write lock; 0x0A00 the file has no Finder Info entry; 0x0B00 write
 * failed or short. */
int EASWriteFinderInfo(VEXOEAS *eas);
/* Stores 32 bytes of Finder Info in a file's resource file, which is made where it is missing or empty: 82 bytes, with
 * an empty resource fork. Waits for no lock. A resource file that is empty after a failure is removed, unless somebody
 * else has it locked.
 * Codes: 0x0D00 null argument; 0x2600 seek failed; 0x0B00 write failed or short; 0x0400 somebody else has the file
 * locked; those of VEXOEAOpen, VEXOEASOpen and EASWriteFinderInfo. Side effects: those of VEXOEAOpen for writing. */
int VEXOEAEADirFSFInfoWrite(const char *path, const void *finderInfo /* 32 bytes */);
/* Stamps a file with the current time as that of its last synchronisation: the attribute "user.vexo.filea.flushtime",
 * seconds since 1970 as a signed 64-bit number in host byte order. With `checkFs` 1 nothing is done (0) on volumes
 * other than type 2 or 3.
 * Codes: 0x0D00 null path; 0x2A00 the attribute could not be stored. */
int VEXOEAFileEAWriteFlushTime(const char *path, int checkFs);
/* Whether the metadata attribute of a file must be brought up to date from its resource file: 1 when the file was
 * stamped and since then the file changed, or its resource file is older than the stamp or missing; 0 when not, when
 * there is no stamp, or when the caller may not know; -1 when the resource file cannot be looked up.
 * Codes: 0x0D00 null path; those of VEXOEAPath. A failing look-up leaves errno and a log line. */
int EACheckNeedSync(const char *path);
/* Copies the Finder Info of a file's resource file into its metadata attribute, which is made where it is missing, and
 * stamps the flush time. Finder Info that is all zero, or a missing resource file, leaves the Finder Info stored. With
 * `checkFs` 1 nothing is done (0) on volumes other than type 2 or 3.
 * Codes: 0x0D00 null path; 0x0A00 the attribute is damaged; those of VEXOEASOpen, VEXOEAFileEAAdoubleFlush and
 * VEXOEAFileEAWriteFlushTime. */
int VEXOEAFileEAFSFinfoEASync(const char *path, int checkFs);

/* ---- Extended attributes ----------------------------------------------------------------------------------------
 *
 * Names are complete, with their namespace ("user.…"), and go to the file system as they are, but for one: exactly
 * "com.apple.ResourceFork" is the file's resource fork, which volumes that have such forks show as "<file>/rsrc". To
 * reach it the file's owner is given the right to execute it while the call runs, as root where the caller is not; mode
 * and effective user are afterwards as they were, also after a failure. Both are visible to others meanwhile, and the
 * effective user is the whole process's: callers serialise.
 *
 * On failure errno is set. Codes are only those listed, for most failures the file system's errno tells all.
 *
 * Example: an attribute of unknown size.
 *
 *     int size = VEXOEAXattrGet(path, "user.comment", NULL, 0);
 *     char *value = size > 0 ? malloc(size) : NULL;
 *     if (value != NULL && (size = VEXOEAXattrGet(path, "user.comment", value, size)) > 0)
 *         use(value, size);
 */

/* Reads an attribute into `value` of `size` bytes and gives its size; with `size` 0 only the size is asked.
 * Codes: 0x0D00 null path or name, null value with a size, or negative size. For the fork: 0x0700 no such file, a
 * directory, or an empty fork (ENODATA); 0x2700 the file cannot be looked up; 0xBF00 it is longer than `size` (ERANGE).
 */
int VEXOEAXattrGet(const char *path, const char *name, void *value, int size);
/* Sets an attribute to `size` bytes; `flags` as for setxattr(): 0, 1 only create (EEXIST), 2 only replace (ENODATA). A
 * fork that holds bytes counts as existing; when writing it fails it may be left empty or in part.
 * Codes: 0x0D00 null argument or negative size; 0x0700 the fork of a directory. */
int VEXOEAXattrSet(const char *path, const char *name, const void *value, int size, int flags);
/* Removes an attribute; a fork becomes empty, and an empty one stays so.
 * Codes: 0x0D00 null argument; 0x0700 the fork of a directory. */
int VEXOEAXattrRemove(const char *path, const char *name);
/* Appends the names of a file's attributes to the caller's list, without the fork. A file without any, or no file,
 * empties the list instead. After a failure the list may hold some of the names.
 * Codes: 0x0D00 null argument; 0x0100 out of memory; 0x2A00 the names could not be read, or grew meanwhile (ERANGE). */
int VEXOEAXattrEnum(const char *path, VLIBCSzList **list);

/* ---- Opening companions -----------------------------------------------------------------------------------------
 *
 * Every companion of a file is opened here. Opening one for writing makes "@eaDir" where O_CREAT asks for it, and sets
 * the archive attribute of the file, whose metadata are about to change; a volume that has no such attribute is
 * tolerated.
 *
 * "@eaDir" may be written by everybody. So no link is followed from there on, nothing is waited for, and what is no
 * regular file is not opened: ELOOP for a link, EINVAL for anything else, EMLINK for a file with other names that not
 * everybody may use as asked, ENOTDIR where "@eaDir" or the file's directory in it is none. The same holds for all that
 * works on companions. A path whose last component is empty, "." or ".." names nothing that could have any: there is
 * none (ENOENT), and what would make, change or remove one fails with 0x0D00 and touches nothing.
 *
 * Example: change an attribute in the stream file of `path`.
 *
 *     int fd = VEXOEAOpen(1, path, "VexoEAStream", O_RDWR | O_CREAT, 0);
 *     VEXOEAS *stream = fd < 0 ? NULL : VEXOEASOpen(fd, F_WRLCK);
 *     if (stream != NULL) {
 *         VEXOEASWrite(stream, "user.comment", text, length, 0, 1);
 *         VEXOEASClose(stream);
 *     }
 *     if (fd >= 0)
 *         close(fd);
 */

/* Opens a companion of the file `path`: for `kind` 0 as VEXOEAOpenNoADFS; for 1 the AppleDouble file "._<base>" beside
 * it, which is then given the hidden attribute on FAT and exFAT (a failure is logged, the file stays open). `oflag` as
 * for open(); files are made with mode 0777 less the umask. Returns a descriptor that the caller closes, or -1 with
 * errno.
 * Codes: 0x0D00 null argument (ENOENT), unknown kind, or a path that names no entry, for writing (EINVAL); those of
 * VEXOEAPath. A failing open() sets errno alone. */
int VEXOEAOpen(int nameMode, const char *path, const char *stream, int oflag, int kind);
/* Opens a companion in "@eaDir"; `nameMode` and `stream` as for VEXOEAPathNoADFS. With O_CREAT the directories on the
 * way are made first. Result and codes as for VEXOEAOpen, and those of VEXOEAMKDir. */
int VEXOEAOpenNoADFS(int nameMode, const char *path, const char *stream, int oflag);
/* Makes the directory `eaDirPath`, with `parentToo` first the one that holds it: mode 0777 whatever the umask, hidden
 * from Mac clients on type 7, with the platform's ACL for such directories, which is set by way of "/proc/self/fd". One
 * that exists is left as it is.
 * Codes: 0x0D00 null path, one that ends in "." or "..", or no parent in it; 0x3C00 it cannot be made, or the process
 * cannot become root; 0x2A00 mode or Finder Info could not be set; 0x0100 out of memory. Runs as effective user root:
 * callers serialise. */
int VEXOEAMKDir(int parentToo, const char *eaDirPath);
/* Sets the archive attribute of a file, for the next backup to take it along. Returns what the platform's call returns:
 * 0, or -1 with errno (ENOSYS: it has no such call). No code, no log line. */
int EASetSmbArchive(const char *path);

/* ---- Copy ---------------------------------------------------------------------------------------------------------
 *
 * Carries everything that belongs to a file or directory (attribute stream, resource fork, Finder Info, "._" file, user
 * attributes, the locked state, and what other services keep in its own directory in "@eaDir") from `src` to `dst`, and
 * converts it between volumes that keep it in different ways. The file itself is copied before, by the caller.
 *
 * Whatever the two kinds, the archive bit of `dst` is set. `move`, not 0: what was carried is removed at the source.
 * `fullDir`, not 0: the rest of the directory in "@eaDir" is carried even where one volume keeps a "._" file. `srcKind`
 * and `dstKind` are the type codes of the volumes; -1: looked up.
 *
 *     VEXOFileCopy(src, dst, NULL);           // does it itself; or, for data that were written some other way:
 *     VEXOEACopy(src, dst, 0, 0, -1, -1, 0, 0);
 *
 * What cannot be carried stays at the source, with a move too: an attribute over 65536 bytes on the way to a volume of
 * native attributes, an entry that could not be written, and what lies in the directory in "@eaDir" where a descriptor
 * or memory was wanting on the way (EMFILE, ENFILE, ENOMEM). Three things a move gives up on purpose: an entry of the
 * directory in "@eaDir" whose copy failed for another reason than a full cross-device copy; anything in that directory
 * that is no regular file; and all of it when the destination's directory cannot be made.
 *
 * Returns 0, or -1: 0x0D00 null or empty path; 0x0100 out of memory, or an attribute passed over as too large (then the
 * result is 0); 0x0900 a store could not be opened; 0x0A00 it could not be read, or is malformed; 0x0B00 it could not
 * be written; 0x2A00 something could not be removed or made accessible, or an AppleDouble entry is missing; 0x3900 the
 * directory that `dst` had in "@eaDir" could not be removed; 0xC300 a name is too long; those of VEXOCopyFileFd,
 * VEXOEASOpen, VEXOEASWrite, VEXOEAXattrGet and VEXOEAMKDir. Where only errno tells why (a file that cannot be opened
 * for copying, an attribute that cannot be read) the code is left as it was. A volume that supports no attributes
 * (EOPNOTSUPP) is a -1 without a log line. May switch the effective user to root and back. */
int VEXOEACopy(const char *src, const char *dst, int move, int fullDir, int srcKind, int dstKind, int, int);
/* The same, with `copyEA` in place of the copy of each file of the store (null: the built-in one). */
int VEXOEACopyEx(const char *src, const char *dst, int move, int fullDir, int srcKind, int dstKind, int, int,
                 VEXOCopyBareEAFn copyEA);
/* The same, with the copyEA callback of one of the records; each may be null. When `options` is given `copyEngine` is
 * not looked at. */
int VEXOEACopyInternal(const char *src, const char *dst, int move, int fullDir, int srcKind, int dstKind,
                       VEXOCopyArgsEx *options, VEXOCopyTHRArgs *copyEngine, VEXOCopyArgs *fileOp);

/* Repairs a resource file that holds extended attributes: they are moved into the attribute stream, and the resource
 * file is written without them. 0, or -1 with the resource file as it was. */
int VEXOEAFixErrorAD(const char *path);

/* ---- Rename and removal -----------------------------------------------------------------------------------------
 *
 * They act on what belongs to a file, not on the file: the caller renames or deletes that first. `fsKind` is the type
 * code of the volume; -1: looked up. On FAT, exFAT and type 5 the "._" file and the file's own directory in "@eaDir"
 * are meant, on the others the stream files "VexoResource" and "VexoEAStream" and that directory; on a type that keeps
 * nothing beside a file nothing is done, successfully. An "@eaDir" that is left empty, or with a ".cover" only, goes.
 *
 *     if (rename(oldPath, newPath) == 0)
 *         VEXOEARename(oldPath, newPath, -1, 0);
 */

/* Moves everything that belongs to a file renamed from `oldPath` to `newPath`; across volumes with /bin/mv. What stood
 * under the new name is replaced, but across volumes nothing but a regular file. The archive bit of the new path is set
 * (a failure of that is a debug line). Returns 0, or minus the number of items that could not be moved (the others
 * were): 0x2800, or what making "@eaDir" raised. -1 also for a null path or one that names no entry (0x0D00) and a
 * volume whose type cannot be told. A "._" file is moved where that is possible, and never a failure. errno and the
 * last error are those of the move. May switch the effective user to root and back.
 */
int VEXOEARename(const char *oldPath, const char *newPath, int fsKind, int reserved);

/* The same for one stream file, "VexoResource" or "VexoEAStream". 0 or -1. */
int VEXOEARenameByStream(const char *oldPath, const char *newPath, int fsKind, const char *streamName);

/* Removes everything that belongs to `path`, which may be gone already. With -1 the volume of its parent directory is
 * asked. 0, or -1: 0x0D00 null path, or one that names no entry; 0x2A00 the volume's type cannot be told; 0x3900
 * something would not go (the rest is gone); 0xC300 name too long. */
int VEXOEARemove(const char *path, int fsKind);

/* The same, but the attribute stream stays when the resource stream is gone. Not to run at the same time as
 * VEXOEARemove in another thread. */
int VEXOEARemoveWithoutEAStream(const char *path, int fsKind);

/* `which` 0: removes the file's own directory in "@eaDir" with everything in it. 1: removes its two stream files, and
 * the "@eaDir" when that leaves it empty. 0, also when there is nothing to remove, or -1 with 0x3900 (something would
 * not go, or cannot be looked at), 0xC300 or 0x0D00. */
int EARemove(int which, const char *path);

/* Removes the "@eaDir" that `path` names or lies in, when it holds nothing, or a ".cover" file only. 0: it is gone (or
 * never was); -1: it stays. Sets no error code. */
int EARemoveEADir(const char *path);

/* Removes the "@eaDir" of a directory that holds nothing else, with everything in it. */
void VEXOEARemoveDanglingEADir(const char *dirPath);

/* ---- Upgrade ------------------------------------------------------------------------------------------------------
 */

/* Converts one store of a file from the old layout (a small file for each attribute in the file's directory in
 * "@eaDir", streams named with ":") into the current one. `streamName` says which: "VexoEAStream" the attributes,
 * "VexoResource" the resource, any other name that begins with "VEXO" that stream. Pictures and the like that other
 * services keep in the same directory stay where they are, and so does an attribute that cannot be converted; the
 * directory goes when it is empty. With the resource its locked and hidden flags are carried into the file itself, as
 * far as that is possible; an upgrade never unlocks a file.
 *
 * Returns 0 converted; 1 the current store is there already; 2 there is nothing old; -1 failed: 0x0D00 null argument,
 * another name or a path that names no entry; 0x0900 open; 0x0A00 the "._" file cannot be read; 0x2800 rename, also
 * with /bin/mv; 0x2A00 a store, or 0x2700 what the "._" file belongs to, cannot be looked at; 0x3900 the old directory
 * cannot be removed. The last error of a 0 tells of the last file alone: where that one was passed over its code
 * remains (0x0100, 0x0900, 0x0A00, 0x0B00, 0x2A00, and 0x4000 for a resource that is not AppleDouble version 2); an
 * attribute that was converted after it leaves 0x2000. What is still in the old directory tells of all of them. A name
 * too long for a "._" file is a 0 with 0xC300. */
int VEXOEAUpgrade(const char *path, const char *streamName);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
