// Files of which one look is enough: for whoever has many pairs to compare, most of them with nothing to tell.
#pragma once

#include "tools/engine/compare/side.h"

#include <string>
#include <vector>

namespace engine {

// Two open directories, with what a comparison knows of their volumes.
struct DirectoryPair {
    int source, copy;
    const VolumeFacts &sourceFacts, &copyFacts;
};

// Of the names, which both directories have, those of files that a comparison of the entries has to look at. Left out
// are regular files that are the same in size, owner, group, mode, times and DOS attributes to the last bit, of one
// name each, without holes, attributes, ACLs and stores: of these it would find nothing.
//
// The process's working directory is another one meanwhile: a name alone is found in half the time of a path.
std::vector<std::string> files_to_compare(const DirectoryPair &pair, const std::vector<std::string> &names);

} // namespace engine
