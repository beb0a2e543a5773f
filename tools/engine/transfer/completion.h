// The last look at a copy: what it lacks of its source, once everything was given to it that can still be given.
#pragma once

#include "tools/engine/compare/entry_comparison.h"

#include <cstdint>
#include <vector>

namespace engine {

// A command of the appliance kernel's for DOS attributes, or of what the platform has in its place. -1, with errno:
// EOPNOTSUPP where the volume keeps none.
int change_dos_attribute(int fd, int command);

// The DOS attributes of an open file or directory. A volume without such bits loses them, as a comparison tells.
void give_dos_attributes(int fd, uint32_t attributes);

// Gives an entry all times of another one, or those of an earlier look at that. What cannot be given is for a
// comparison to tell.
void give_times(const Side &from, const Side &to, const VLIBCStat *before = nullptr);

// Compares, and gives to the copy what it has not got and may come late: attributes that only root sets and the library
// leaves where they are; those of users, which it leaves behind where the volume's stores are "._" files; the sticky
// bit and the set-id bits, which a volume may not give to a new file; takes from its group what only the mask of
// an ACL gave it; times, which a platform may keep in an attribute that came after them, with the archive attribute
// that every copy has; what lies in "@eaDir" and is no part of a store, if the options ask for that. The result is of a
// second comparison then.
// `carried`: what lies in "@eaDir" and is no part of a store has been, and is compared alone.
std::vector<Loss> complete_copy(const Side &source, const Side &copy, const CompareOptions &options = {},
                                bool carried = false);

} // namespace engine
