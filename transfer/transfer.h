// The descriptor loop under every copy: moves a number of bytes from one open file to another, in blocks, and leaves
// the holes of a sparse source out.
#pragma once

#include "support/callback.h"

#include <cstdint>
#include <sys/stat.h>

namespace vexo {

using ProgressCallback = Callback<void(int64_t bytes, int64_t offset)>;
using CancelCallback = Callback<int()>;
using ReadSizeCallback = Callback<int64_t(int64_t lastBytes, int64_t offset)>;

struct TransferCallbacks {
    ProgressCallback progress;
    CancelCallback isCancel;
    ReadSizeCallback getReadSize;
};

// Copies `size` bytes. Opens and closes nothing; `dstFd` is left behind the last byte written. 0, or -1 reported under
// the name `source`, with what was written before the failure left in the destination.
// Whether the source is sparse is asked when the copy begins, unless the caller has looked at the same descriptor and
// passes what it saw: an earlier look may be of another file by then.
int transfer(int srcFd, int dstFd, int64_t size, const TransferCallbacks &callbacks, const char *source,
             const struct stat *seen = nullptr);

// The name under which a transfer without records of its own reports: that of the descriptor copy's front door.
inline constexpr char kDescriptorCopySource[] = "copy/copy_file_copy_fd.c";

} // namespace vexo
