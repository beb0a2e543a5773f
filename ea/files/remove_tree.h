// Removing a tree, as "rm -rf" does: depth first, links not followed, one log line for what would not go. A directory
// that is exchanged for a link meanwhile leads nowhere, and however deep a tree is, two descriptors do.
#pragma once

#include "support/report.h"

namespace vexo {

// The first entry that would not go ends it: -1 with errno, after a line under the name of `source`; the caller says
// that the tree could not be removed. 0: all of it is gone.
int remove_tree(const char *path, const char *source);

template <SourceName Source>
int remove_tree(const char *path) {
    return remove_tree(path, sourceName<Source>.text);
}

} // namespace vexo
