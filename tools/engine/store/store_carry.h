// Carrying what one file has in its store to another that may have a store already: on a stand-in first, so that
// whatever fails or is killed on the way leaves what only the destination has, and so that nothing is open to others
// meanwhile that is not so before or afterwards.
#pragma once

#include "tools/engine/walk/held_entry.h"

namespace engine {

// `move` and `fullDirectory` as for carry_store. Both are there, and are two files on volumes that keep stores. Throws
// Failure.
void carry_store_apart(const HeldEntry &source, const HeldEntry &destination, bool move, bool fullDirectory);

} // namespace engine
