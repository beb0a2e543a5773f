// Trees drawn from a seed, with everything in them that can get lost on the way to another volume.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace agreement {

struct TreeOptions {
    bool older = false; // as what stands at a destination already, with some of the names of the tree of the same seed
    bool partial = false;  // what the volume or this user may not have is left out; else all of it has to get there
    bool lossless = false; // nothing that some volume of this kernel's own does not keep
    off_t large = 0;       // a file of so many bytes, of which nearly all is a hole
};

// Makes the directory `top`. The same seed makes the same tree, wherever, but for what is left out; attributes that the
// volume of `top` does not keep are never in it.
void make_tree(const std::string &top, uint32_t seed, const TreeOptions &options = {});

// Makes the directory `top` with names of which some become one on volumes that fold letter cases, compose letters,
// drop a dot at the end, or keep no byte that is no letter.
void make_twins(const std::string &top);

} // namespace agreement
