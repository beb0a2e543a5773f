// Files of which one look is enough: for whoever has many pairs to compare, most of them with nothing to tell.
#pragma once

#include "tools/engine/compare/side.h"

#include <ctime>
#include <string>
#include <vector>

namespace engine {

// Two open directories, with what a comparison knows of their volumes.
struct DirectoryPair {
    int source, copy;
    const VolumeFacts &sourceFacts, &copyFacts;
    timespec begun = {}; // when the copying began, by CLOCK_REALTIME_COARSE
};

// Of the names, which both directories have, those of files that a comparison of the entries has to look at. The copies
// were made since `begun`, where nobody else gets in.
//
// Left out are regular files that are the same in size, owner, group, mode, times and DOS attributes to the last bit,
// of one name each, without holes, without attributes or with the same ones, and without stores or with the same ones:
// of these it would find nothing. Attributes are user attributes and an ACL, and their names are enough: a new file has
// none that it was not given (one in a directory that hands ACLs on is compared), the kernel's own file systems (ext4,
// XFS, btrfs, tmpfs) keep one whole or not at all, as they keep the data, which nobody reads again either; and a source
// whose status has changed since the copying began is compared with everything. Stores are the same to the byte, and
// nothing is wrong in them.
//
// The process's working directory is another one meanwhile: a name alone is found in half the time of a path.
std::vector<std::string> files_to_compare(const DirectoryPair &pair, const std::vector<std::string> &names);

} // namespace engine
