// The "@eaDir" beside a file, and the directory that the file has in it.
#pragma once

#include "ea/carry/known.h"
#include "ea/names/store.h"
#include "support/path_buffer.h"

namespace vexo {

// Whether the "@eaDir" beside a path is certainly not there, so that nothing in it needs to be looked for: one look, or
// none where a walk has seen enough, in place of one for each companion, whose paths moreover depend on the volume's
// longest name. Leaves errno alone.
bool has_no_ea_directory(const char *path, StoreSeen seen);

// Makes the "@eaDir" (kSharedDirectory), or the path's own directory in it (kPerFileDirectory) after removing what
// stood there, and leaves its path in `directory`. 0 or -1, reported.
int prepare_ea_directory(int which, const char *path, PathBuffer &directory);

int prepare_shared_directory(const char *path);

// Removes a tree that is there; one that is not is no failure. 0, or -1 with a log line.
int remove_source_tree(const char *path);

} // namespace vexo
