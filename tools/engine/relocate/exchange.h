// The one moment of a relocation: the copy takes the place of what stands at the destination.
#pragma once

#include "tools/engine/relocate/note.h"
#include "tools/engine/relocate/private_place.h"

#include <string>

namespace engine {

// The names in the private place.
inline constexpr char kCopyName[] = "copy", kOldName[] = "old";

// Whether the copy stands at the destination.
bool is_placed(const PrivatePlace &place, const Note &note);
// Whether it can take its place: it is still what was noted, and so is the destination, or half of it was done.
bool can_be_placed(const PrivatePlace &place, const Note &note);
// The name in the place of what stood at the destination; empty: it is not there.
std::string old_name(const PrivatePlace &place, const Note &note);

// Where the volume can exchange two names that happens at once; else the old one is renamed first. Throws Failure, with
// the destination as it was.
void put_in_place(const PrivatePlace &place, const Note &note);

} // namespace engine
