/* What the tool knows (tools/engine), for programs in other languages: plain functions, records and callbacks. No
 * exception leaves a function, and none may leave a callback.
 *
 *  1. Results are 0, or -1 with the reason in the caller's VexoFailure.
 *  2. Paths and names are NUL-terminated byte strings of any bytes; a relative path counts from the working directory.
 *     What a callback is given lives until it returns.
 *  3. Sizes are bytes. What becomes of entries is told, not returned: a 0 says that the request was gone through.
 *  4. Callbacks run on the calling thread, between two steps. Each may be null.
 *  5. The process: the umask is 0 for moments, and the effective user root where the process may become it. Callers
 *     serialise. No process is started for the work but where jobs asks for some: they end with the call, run nothing
 * of the caller's, and leave a SIGINT to it.
 *
 * The Python package reads its declarations from this file: beside comments and preprocessor lines it has plain
 * declarations only. Whoever changes a record counts VEXO_BINDING_VERSION up. */
#ifndef VEXOFILEOP_TOOLS_BINDING_BINDING_H
#define VEXOFILEOP_TOOLS_BINDING_BINDING_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum { VEXO_BINDING_VERSION = 2 };
/* The version of the interface that was compiled, and the sizes of the records VexoFailure, VexoProblem, VexoLoss,
 * VexoEntry, VexoRoom, VexoCallbacks, VexoSelection, VexoTransferOptions, VexoComparisonOptions, VexoRelocation,
 * VexoMirrored, VexoBackedUp, VexoFinding, VexoConversion,
 * VexoSurveyed and VEXOCopyArgs, in this order, ended by 0: a caller that declares them otherwise must
 * not go on. */
int vexo_binding_version(void);
const uint32_t *vexo_binding_sizes(void);

/* Why a call failed. */
typedef struct VexoFailure {
    uint32_t code;   /* the library's; 0: none */
    int32_t number;  /* errno; 0: not known */
    char text[1024]; /* words, cut to fit; never empty after a failure */
} VexoFailure;

/* Why an entry was not done, or not as it should be. */
typedef struct VexoProblem {
    const char *text;
    uint32_t code;
    int32_t number;
    int32_t of_source; /* not 0: whatever the destination */
    int32_t same_file; /* not 0: source and destination are one */
} VexoProblem;

/* What the destination has not, or not as it was. */
typedef struct VexoLoss {
    int32_t loss_class; /* a row of vexo_loss_classes() */
    int32_t accepted;   /* not 0: the options name the class */
    int32_t fails;      /* not 0: it was not accepted, and costs more than room */
    const char *detail;
} VexoLoss;

enum { VEXO_FILE, VEXO_LINK, VEXO_DIRECTORY, VEXO_OTHER };
/* What became of an entry; of a plan, what would. */
enum {
    VEXO_DONE,
    VEXO_SKIPPED,
    VEXO_FAILED,
    VEXO_CANCELLED,
    VEXO_PLAN_NEW,
    VEXO_PLAN_REPLACE,
    VEXO_PLAN_MERGE,
    VEXO_PLAN_RENAME,
    VEXO_PLAN_SKIP,
    VEXO_PLAN_FAIL
};
enum {
    VEXO_ENTRY_CLONED = 1,
    VEXO_ENTRY_SAME = 2,         /* it stood there already */
    VEXO_ENTRY_LINKED = 4,       /* another name of what an earlier one has become */
    VEXO_ENTRY_SOURCE_STAYS = 8, /* of a move: it is at both places */
    VEXO_ENTRY_IN_PLACE = 16     /* what stood there was written into */
};
typedef struct VexoEntry {
    const char *source, *destination;
    int64_t bytes;
    int32_t kind, status;
    uint32_t flags;
    int32_t loss_count;
    const VexoLoss *losses;
    const VexoProblem *problem; /* null: none */
    const VexoProblem *warning; /* done, but not as it should be; null: as it should be */
    const char *backup;         /* where what it replaced is kept; null: nowhere */
} VexoEntry;

/* The room that a plan needs on one volume of the destination. -1: not known, or there is no such limit. */
typedef struct VexoRoom {
    const char *directory;
    int64_t bytes_needed, inodes_needed;
    int64_t bytes_free, inodes_free, quota_bytes_free, quota_inodes_free;
    int32_t probed; /* not 0: it was tried there what the volume takes */
} VexoRoom;

/* What is wrong with a store. */
enum { VEXO_FOUND, VEXO_MENDED, VEXO_LEFT };
typedef struct VexoFinding {
    const char *name;    /* of the kind, which does not change: "store-orphan" */
    const char *place;   /* the store file, directory or attribute */
    const char *file;    /* that it is kept for; empty: none, or not one */
    const char *belongs; /* of an orphan: the file that it may belong to now */
    const char *detail;  /* in words */
    const char *remedy;  /* what a repair does about it; empty: nothing */
    const char *reason;  /* of one that was left although there is a remedy */
    int32_t state;
} VexoFinding;

/* What became of a store that was to be converted. */
enum { VEXO_CONVERTED, VEXO_CONVERTIBLE, VEXO_STORE_LEFT };
typedef struct VexoConversion {
    const char *file, *source_form, *form;
    const char *reason; /* of what is left */
    int32_t state, loss_count;
    const VexoLoss *losses;
} VexoConversion;

typedef struct VexoCallbacks {
    void *data;
    int (*stopped)(void *data); /* before each entry and block; not 0: end as soon as nothing is half done */
    /* Whether an entry is meant. `path` goes down from the source's own name: "photos/2024/a.jpg". A directory that is
     * not meant is not looked into. A tree is walked name by name for it. */
    int (*meant)(void *data, const char *path, int is_directory);
    void (*progress)(void *data, int64_t bytes); /* so many more bytes are done */
    void (*entry)(void *data, const VexoEntry *entry);
    void (*arrived)(void *data, int32_t entries, int64_t bytes); /* so many more files and links, of which nothing is to
                                                                    be said; not with every_entry */
    /* What has a name of something under way, at the destination or, of a comparison, at either: it may be left over,
     * or not be over, or somebody's own. It stays. */
    void (*left_over)(void *data, const char *path);
    void (*room)(void *data, const VexoRoom *room);
    void (*lost)(void *data, const char *source, const char *destination, const VexoLoss *loss);
    void (*extra)(void *data, const char *path, int32_t kind);                    /* only the second has it */
    void (*compared)(void *data, const char *first, int32_t kind, int64_t bytes); /* entries of the first */
    void (*failed)(void *data, const char *path, const VexoProblem *problem);     /* of a relocation */
    void (*removed)(void *data, const char *path, int32_t status, const VexoProblem *problem); /* of a removal */
    void (*finding)(void *data, const VexoFinding *finding);
    void (*converted)(void *data, const VexoConversion *conversion);
} VexoCallbacks;

/* Which entries are meant; the others are passed over. Names by the rules of rsync, of which the first that fits holds:
 * "- PATTERN" and "+ PATTERN". A path begins with the source's own name. Size, time and archive bit choose regular
 * files alone. */
typedef struct VexoSelection {
    const char *const *rules;
    int32_t rule_count;
    int32_t archived_alone;        /* those that have the archive bit */
    int32_t one_file_system;       /* nothing of other volumes that are mounted in the tree */
    int64_t least_size, most_size; /* both included; -1: any */
    int64_t not_before, before;    /* when they were modified, in nanoseconds since 1970; INT64_MIN: at any time */
} VexoSelection;

enum { VEXO_COPY, VEXO_MOVE };
/* A destination that exists. */
enum { VEXO_EXISTING_FAILS, VEXO_EXISTING_REPLACED, VEXO_EXISTING_STAYS, VEXO_KEEP_BOTH, VEXO_UPDATE };
enum { VEXO_CLONE_NEVER, VEXO_CLONE_AUTOMATIC, VEXO_CLONE_ALWAYS };
enum { VEXO_SYNC_NONE, VEXO_SYNC_FILE, VEXO_SYNC_VOLUME };
typedef struct VexoTransferOptions {
    int32_t operation, existing, clone, sync;
    int32_t trees;            /* directories too, with everything in them; links in them stay links */
    int32_t links;            /* a link is copied as a link; else it is followed */
    int32_t into;             /* a destination that is a directory means into it; else it is the new name */
    int32_t specials;         /* pipes, devices and sockets are made anew; else they are a loss */
    int32_t hard_links;       /* names of one file stay that */
    int32_t checksum;         /* VEXO_UPDATE: the same is only what has the same content */
    int32_t verify;           /* each file is read back and compared */
    int32_t retries;          /* of what failed for what may pass */
    int32_t every_entry;      /* each entry is told; else those of which there is something to say */
    int32_t probe;            /* of a plan: something may be made at the destination, and is removed again */
    int32_t in_place;         /* what is replaced is written into, so that it stays what its other names are */
    int32_t reversible_names; /* names that a volume does not take are kept beside the entries, and come back */
    int32_t jobs;             /* so many processes share a tree; 0, 1: this one alone. Without meant() */
    int64_t bytes_per_second; /* at most; 0: any number */
    uint64_t accepted;        /* bit N: what may be lost of the row N of vexo_loss_classes() */
    /* What is replaced is kept, as its name with the suffix, and below the directory (which is in that of the
     * destination where it is relative). Both null: it is not kept. */
    const char *backup_suffix, *backup_directory;
    const VexoSelection *selection; /* null: everything */
} VexoTransferOptions;

/* Copies or moves; entries, arrived and progress are told, and by lost() what only all names of a file show. */
int vexo_transfer(const char *source, const char *destination, const VexoTransferOptions *options,
                  const VexoCallbacks *callbacks, VexoFailure *failure);
/* The same without doing it: entry tells what would become of each, room what is needed. */
int vexo_plan(const char *source, const char *destination, const VexoTransferOptions *options,
              const VexoCallbacks *callbacks, VexoFailure *failure);

enum { VEXO_MIRROR_LEFT_OUT_TOO = 1, VEXO_MIRROR_ALLOW_EMPTY = 2 };
typedef struct VexoMirrored {
    int64_t removed, backups; /* of those that were to go */
    int64_t failed, stayed;   /* could not be removed; are mounted, or under way by others */
    int64_t left;             /* for `most` */
    int32_t nothing_removed;  /* not 0: something was to go, and nothing did, for not everything was copied */
} VexoMirrored;
/* Makes the directory `destination` equal to `source`: what it has and the source has not is removed once everything is
 * copied, at most `most` entries of it (-1: any number). With VEXO_MIRROR_LEFT_OUT_TOO what the selection leaves out by
 * its name goes as well; without VEXO_MIRROR_ALLOW_EMPTY a source that holds nothing is refused where anything would
 * go. Entries, arrived, progress and removed are told. existing, trees, links, into and in_place say nothing here. A
 * path of the selection's rules begins below the source. */
int vexo_mirror(const char *source, const char *destination, const VexoTransferOptions *options, uint32_t flags,
                int64_t most, const VexoCallbacks *callbacks, VexoMirrored *result, VexoFailure *failure);

enum { VEXO_BACKUP_FULL = 1, VEXO_BACKUP_KEEP_BITS = 2 };
typedef struct VexoBackedUp {
    int64_t cleared, kept, failed; /* archive bits: cleared; left, since something changed; not to be cleared */
    char list[4096];               /* where the list of what has arrived is; empty: there is none */
    char refusal[1024];            /* why there is none, so that no bit is cleared */
} VexoBackedUp;
/* Copies what has the archive bit, with VEXO_BACKUP_FULL everything, into the directory `destination`, reads it back,
 * lists it beside that, and then clears the bits of what is proven to be there and has not changed. Nothing is removed.
 * Entries, arrived and progress are told, and to failed() each bit that could not be cleared. existing, trees, links,
 * into, in_place, checksum, verify and every_entry say nothing here; without sync the volumes are written out all the
 * same. A path of the selection's rules begins below the source. */
int vexo_backup(const char *source, const char *destination, const VexoTransferOptions *options, uint32_t flags,
                const VexoCallbacks *callbacks, VexoBackedUp *result, VexoFailure *failure);

/* Renames an entry within one volume, with what is kept for it; errno EXDEV for a place on another volume, EEXIST where
 * something stands and is not to be replaced. A problem with what is kept is told to failed(). */
int vexo_rename(const char *source, const char *destination, int replace, const VexoCallbacks *callbacks,
                VexoFailure *failure);

enum { VEXO_REMOVE_TREE = 1, VEXO_REMOVE_EMPTY = 2, VEXO_REMOVE_MISSING = 4 };
/* Removes an entry with what is kept for it: of VEXO_REMOVE_TREE a directory with everything in it, of
 * VEXO_REMOVE_EMPTY one that holds nothing; with VEXO_REMOVE_MISSING what is not there is no failure. Entries are told
 * to removed(). */
int vexo_remove(const char *path, uint32_t flags, const VexoCallbacks *callbacks, VexoFailure *failure);

typedef struct VexoComparisonOptions {
    int32_t data;  /* content is read; else sizes decide */
    int32_t times; /* modification and creation time */
    int32_t reversible_names;
    int32_t jobs;
    const VexoSelection *selection;
} VexoComparisonOptions;
/* What `second` lacks of `first`, by lost(), and what only it has, by extra(). */
int vexo_compare(const char *first, const char *second, const VexoComparisonOptions *options,
                 const VexoCallbacks *callbacks, VexoFailure *failure);

enum {
    VEXO_RELOCATED,
    VEXO_RELOCATION_CANCELLED,  /* with everything as it was */
    VEXO_RELOCATION_NOT_COPIED, /* with everything as it was */
    VEXO_RELOCATION_UNFINISHED,
    VEXO_RELOCATION_INCOMPLETE, /* in place without some of it; the source stays */
    VEXO_SOURCE_REMAINS,        /* in place with everything; the source is not removed entirely */
    VEXO_OLD_REMAINS            /* the same of what stood there before */
};
typedef struct VexoRelocation {
    int32_t end;
    int32_t missing;  /* losses that were not accepted */
    int32_t in_place; /* the copy stands at the destination */
    int32_t again;    /* the same request again goes on from here */
    VexoFailure problem;
    char aside[4096]; /* where what is left of the old destination stands; empty: nowhere */
} VexoRelocation;
enum { VEXO_KEEP_SOURCE = 1, VEXO_MAKE_SPECIALS = 2 };
/* Brings a directory to another place at once: WHAT STANDS THERE IS REMOVED, once the copy stands. */
int vexo_relocate(const char *source, const char *destination, uint32_t flags, uint64_t accepted,
                  const VexoCallbacks *callbacks, VexoRelocation *result, VexoFailure *failure);

enum { VEXO_STORES_RECURSIVE = 1, VEXO_STORES_ONE_VOLUME = 2, VEXO_STORES_DRY_RUN = 4 };
typedef struct VexoSurveyed {
    int64_t directories, stores;
    int32_t quarantined; /* something was put into the quarantine */
} VexoSurveyed;
/* What is wrong with what is kept for an entry, and of a directory for all that lies in it: told to finding(), and to
 * failed() what could not be looked into. `quarantine` null: nothing is changed; else what takes no guess is mended,
 * after its original was put into that directory, which is made with the first of them. */
int vexo_check_stores(const char *path, uint32_t flags, const char *quarantine, const VexoCallbacks *callbacks,
                      VexoSurveyed *result, VexoFailure *failure);
/* Puts back what a repair has changed. Told to removed() is each place: VEXO_DONE, VEXO_SKIPPED (it was so),
 * VEXO_FAILED with a problem where it has changed since. */
int vexo_undo_repair(const char *quarantine, const VexoCallbacks *callbacks, VexoFailure *failure);
/* Brings stores into another form, "native", "eadir", "double" or "fileea", where they are. Told to converted(), and to
 * failed() what could not be looked into. */
int vexo_convert_stores(const char *path, const char *form, uint32_t flags, uint64_t accepted,
                        const VexoCallbacks *callbacks, VexoSurveyed *result, VexoFailure *failure);

/* ---- What belongs to a file. A link is refused. A change is all there or not there, whatever stops it, but for the
 * resource fork and Finder Info, which are written in place. */

typedef void (*VexoNameFn)(void *data, const char *name, uint64_t size);
typedef void (*VexoValueFn)(void *data, const char *bytes, uint64_t size);
enum { VEXO_SET_EITHER, VEXO_SET_NEW, VEXO_SET_EXISTING };
int vexo_attributes(const char *path, VexoNameFn each, void *data, VexoFailure *failure);
/* Code 0x2000 where there is no such attribute. */
int vexo_attribute(const char *path, const char *name, VexoValueFn take, void *data, VexoFailure *failure);
int vexo_set_attribute(const char *path, const char *name, const char *value, uint64_t size, int existing,
                       VexoFailure *failure);
int vexo_remove_attribute(const char *path, const char *name, VexoFailure *failure);
/* Where the volume keeps it, in words; static. Null with the failure. */
const char *vexo_kept_in(const char *path, VexoFailure *failure);

/* 32 bytes; 0 with zeros where there is none. */
int vexo_finder_info(const char *path, char *bytes, VexoFailure *failure);
int vexo_set_finder_info(const char *path, const char *bytes, VexoFailure *failure);

typedef struct VexoFork VexoFork;
enum { VEXO_FORK_READ, VEXO_FORK_WRITE, VEXO_FORK_CREATE };
/* The resource fork, open and locked; null with the failure. Closed by vexo_fork_close(). */
VexoFork *vexo_fork_open(const char *path, int access, VexoFailure *failure);
void vexo_fork_close(VexoFork *fork);
int64_t vexo_fork_size(VexoFork *fork);
/* At most `size` bytes from `offset` on; how many, or -1. */
int64_t vexo_fork_read(VexoFork *fork, char *bytes, uint64_t size, uint64_t offset, VexoFailure *failure);
int vexo_fork_write(VexoFork *fork, const char *bytes, uint64_t size, uint64_t offset, VexoFailure *failure);
int vexo_fork_truncate(VexoFork *fork, uint64_t length, VexoFailure *failure);
int vexo_fork_sync(VexoFork *fork, VexoFailure *failure);

/* 1, 0, or -1: the DOS archive bit. A link is followed. */
int vexo_archive_bit(const char *path, VexoFailure *failure);

/* ---- Tables; static. */

typedef struct VexoErrorRow {
    uint32_t code;
    const char *reason, *cause, *help;
} VexoErrorRow;
/* Ascending by code, ended by a row whose reason is null. */
const VexoErrorRow *vexo_errors(void);

typedef struct VexoLossClass {
    const char *name, *severity, *meaning, *help;
    const char *one, *several; /* behind a number: "owner not kept", "owners not kept" */
} VexoLossClass;
/* Ended by a row whose name is null. */
const VexoLossClass *vexo_loss_classes(void);
/* The classes of a name or a group ("all", "acl", "fat"), as bits; 0: there is none of that name. */
uint64_t vexo_loss_set(const char *name);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
