// Removing a tree, as "rm -rf" does: depth first, links not followed, one log line for what would not go.
#pragma once

#include "support/report.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ftw.h>

namespace vexo {

// The walk's callback has no room for data, so the name it logs under is part of its type.
template <SourceName Source>
int remove_tree_entry(const char *path, const struct stat * /*stat*/, int /*type*/, struct FTW * /*where*/) {
    if (path == nullptr) {
        VEXO_LOG_ERROR(VEXO_AT(sourceName<Source>.text), "Invalid paramter in unlink_cb");
        return -1;
    }
    const int result = ::remove(path);
    if (result != 0) {
        VEXO_LOG_ERROR(VEXO_AT(sourceName<Source>.text), "Fail to remove (%s) (%d)(%s)", path, errno,
                       ::strerror(errno));
    }
    return result;
}

// 0, or -1 with errno when something would not go; the caller says that the tree could not be removed.
template <SourceName Source>
int remove_tree(const char *path) {
    constexpr int kDescriptors = 64;
    return ::nftw(path, remove_tree_entry<Source>, kDescriptors, FTW_PHYS | FTW_DEPTH) == 0 ? 0 : -1;
}

} // namespace vexo
