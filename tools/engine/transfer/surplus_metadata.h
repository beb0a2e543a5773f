// What a directory has beside its entries that the one it is to be equal to has not.
#pragma once

#include "tools/engine/compare/side.h"
#include "tools/engine/transfer/held_directory.h"

#include <string>

namespace engine {

// Removes from a directory the attributes that the source has not, and its store where that is not the same: who calls
// gives it everything of the source again. `directory`: the copy itself, open; `held`: where it stands, for calls that
// take a path. Whether anything went.
bool drop_surplus(const Side &source, const Side &copy, const HeldDirectory &directory, const std::string &held);

} // namespace engine
