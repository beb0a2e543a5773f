// Carrying a store that lies in files to a volume on which the file's own attributes are its store.
#pragma once

#include "tools/engine/compare/side.h"

namespace engine {

// Gives a copy, which is a regular file or directory, the attributes, the Finder Info and the resource fork of the
// source's store, its locked state and the archive attribute. Whoever may write to a store has chosen the names in it:
// those that would give rights stay where they are, and so do values that are larger than an attribute can be. What
// does not go is for a comparison to tell. `locked`: where given, whether another process held the store.
void carry_to_attributes(const Side &source, const Side &copy, bool *locked = nullptr);

// Whether a store goes from one to the other in that way.
bool goes_to_attributes(const Side &source, const Side &copy);

} // namespace engine
