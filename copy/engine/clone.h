// Clone copies: on btrfs a copy can share the source's extents instead of writing new ones.
#pragma once

namespace vexo {

enum class CloneResult {
    done,
    fallback, // refused for a reason that an ordinary copy does not mind; nothing is reported
    failed,   // no room for it, which an ordinary copy would meet as well; reported
};

// Makes the whole of `dstFd` a clone of `srcFd`. Failures are reported under the name `source`.
CloneResult clone_file(int dstFd, int srcFd, const char *source);

} // namespace vexo
