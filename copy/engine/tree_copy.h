// The recursive copy of a directory tree: one engine for the option family and the file-operation family.
#pragma once

#include "copy/engine/file_copy.h"
#include "support/callback.h"

#include <cstdint>
#include <sys/types.h>

namespace vexo {

// What a front door makes of its caller's records. Callbacks may be empty, except copyFile and copyMetadata.
struct TreeRequest {
    int32_t srcKind;
    int32_t dstKind;
    bool srcKindHolds; // for every file of the tree: it is not asked for again
    bool pathsMustFit; // an entry whose paths are too long ends the tree
    bool move;
    bool replaces; // the conflict mode is 1: a moved source goes even where its destination was there already
    bool stopOnError;
    bool keepOwner;
    bool copyAcl;
    bool cleanArchive;
    uid_t uid; // 0 means 1024
    gid_t gid; // 0 means 100
    Callback<void(int64_t, int64_t)> progress;
    Callback<void(const char *, uint32_t)> errReport;
    Callback<int()> isCancel;
    Callback<int64_t(const char *, const char *)> dirSize; // of a tree moved by rename; empty: measured
    Callback<int(const char *, char *, int)> dstName;
    // With what is known of the directory that holds the source; null: nothing.
    Callback<int(const char *, const char *, const WalkedDirectory *)> copyFile;
    Callback<int(const char *, const char *)> copyMetadata;   // of a directory, after its entries
    bool carriesMetadata;                                     // that does something
    Callback<int(const char *, const char *)> renameMetadata; // after a move by rename
    const char *source;                                       // the front door's name in log lines
};

// 0: every level was finished, whatever entries were passed over; negative: failed, reported. `cancelled` becomes true
// when the cancel callback stopped a level, which is a 0 too. However deep the tree is, no more than 16 directories of
// the source are open at a time, and one of the destination.
int copy_tree(const char *src, const char *dst, const TreeRequest &request, bool *cancelled);

} // namespace vexo
