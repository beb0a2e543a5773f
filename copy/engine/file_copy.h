// The engine under every single-file copy and move. The front doors turn their records into one request; the engine
// sees neither record nor callback form, and reports under the name of the front door that runs it.
#pragma once

#include "ea/carry/known.h"
#include "support/callback.h"
#include "support/file_ref.h"

#include <cstdint>
#include <sys/stat.h>
#include <sys/types.h>

namespace vexo {

// Who owns the copy.
struct OwnerPolicy {
    static constexpr uint32_t kKeep = 1;   // mode: the source's owner and group
    static constexpr uint32_t kChosen = 0; // mode: the two below. Any other mode: the same for a copy, while a file
                                           // moved by rename keeps its owner
    static constexpr uid_t kDefaultUser = 1024; // what 0 stands for
    static constexpr gid_t kDefaultGroup = 100;

    uint32_t mode = kChosen;
    uint32_t uid = 0, gid = 0;

    uid_t user() const { return uid == 0 ? kDefaultUser : uid; }
    gid_t group() const { return gid == 0 ? kDefaultGroup : gid; }
};

// What a walk knows of the directory that holds a source, so that its files need not ask for it one by one.
struct WalkedDirectory {
    dev_t device;
    int32_t type; // of the volume
    StoreSeen stores;
    bool timesStay; // the destination's volume sets no times when a file is closed
    bool listsAll;  // the volume of `device` lists every attribute that a file has
    // The directory and that of the copies, open, where nothing of a file lies outside of what is reached by them: no
    // path of it has to lead to the same place later. -1: files go by path.
    int from = -1, to = -1;
};

// What happens to an existing destination; any other value leaves it, except that a move by rename replaces it.
enum class Overwrite : int32_t { fail = -1, leave = 0, replace = 1 };

struct FileCopyRequest {
    const char *source; // the front door's file, for log lines and the last error
    const char *src, *dst;

    Overwrite overwrite = Overwrite::leave;
    OwnerPolicy owner = {};
    bool move = false;
    bool clone = false;   // share the source's extents where the volume can
    bool copyAcl = false; // the ACL and the archive ACL
    // The caller's own rights are all there is: owner and times are set as the current user, whoever that is, and an
    // owner that could not be set makes a success 0xFA00.
    bool asCaller = false;

    // Type codes of the two volumes. -1 is looked up and written back: the destination's whatever the answer, the
    // source's on success only.
    int32_t *srcType, *dstType;
    // Not null: the source's type need not be looked up where the source turns out to be on this volume. A move looks
    // it up all the same, as it does not open the source first.
    const WalkedDirectory *directory = nullptr;

    // Empty: not supplied.
    Callback<void(int64_t bytes, int64_t offset)> progress = {};
    Callback<void(const char *path, uint32_t code)> errReport = {};
    Callback<int()> isCancel = {};                                   // asked after a failure
    Callback<int()> keepSource = {};                                 // asked before the source of a move is removed
    Callback<int(const char *dst, char *out, int size)> rename = {}; // another name for a destination that exists

    // Never empty.
    Callback<int(const char *dst, int type, uint64_t size)> isTooLarge = {}; // 1, with the last error: it is
    Callback<int(const char *src, const char *dst, int *srcFd, int *dstFd, int64_t size)> moveData = {};
    bool moveDataIsOurs = false; // and not a caller's, who may put other descriptors in the place of the two

    // Carry the extended-attribute store along, after a rename and after a copy. Empty: it stays where it is.
    Callback<int(const char *src, const char *dst, int srcType)> renameMetadata = {};
    Callback<int(const FileRef &src, const FileRef &dst, int srcType, int dstType, const KnownOfFile &)> copyMetadata =
        {};
};

// Copies or moves one file. Returns 0 (also when the destination was left as it is, is the source itself, or the copy
// was cancelled), or -1 with the last error set and reported once through errReport.
int copy_file(const FileCopyRequest &request);

// What the front doors do after a copy that succeeded.
struct AfterSteps {
    bool cleanArchive, enforceInherit;
};
void do_after_steps(AfterSteps steps, const char *src, const char *dst, const char *source);

} // namespace vexo
