// What is kept beside an entry, on its way to the copy of it: its store, which is the library's work, and what lies in
// "@eaDir" and is no part of a store. Of that the library takes the files alone, and gives them to everybody.
#pragma once

#include "tools/engine/compare/side.h"
#include "tools/engine/report/problem.h"

#include <optional>

namespace engine {

// Gives a copy that has nothing, or a directory that was there before, all that is kept beside the source. What could
// not be carried is for a comparison to tell. A problem: what a directory had in "@eaDir" before is under another name.
// `stored`: the source may have a store. `locked`: whether somebody else held it.
std::optional<Problem> carry_beside(const Side &source, const Side &copy, bool stored, bool *locked = nullptr);

// The same without the store: what lies in the directory of the source's own in "@eaDir", and an empty "@eaDir" in a
// directory, each entry under a private name until it has all that the source's has. An entry of the same name is
// replaced, and what only the copy has stays. `data`: what is the same by size and times may differ all the same.
void carry_kept(const Side &source, const Side &copy, bool data);

// The first half of that alone, of what is no directory.
void carry_own_directory(const Side &source, const Side &copy, bool data);

// The "@eaDir" alone, while something may still be made in the directory.
void carry_empty_store(const Side &source, const Side &copy);

} // namespace engine
