// Trees drawn from a seed, with everything in them that can get lost on the way to another volume.
#pragma once

#include <cstdint>
#include <string>

namespace agreement {

// Makes the directory `top`. The same seed makes the same tree, wherever; what the volume of `top` does not keep is not
// in it. `older`: as what stands at a destination already, with some of the names of the tree of the same seed.
void make_tree(const std::string &top, uint32_t seed, bool older = false);

} // namespace agreement
