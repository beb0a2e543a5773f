// Everything that is kept for a file, at once: carried, renamed, removed, repaired. Paths are absolute ones, of which
// no link in the last component is followed. All of these throw Failure.
#pragma once

#include <string>

namespace engine {

// To another file that exists; what that has of the same name is replaced. `move`: what was carried goes at the source.
// `fullDirectory`: with what else is in the file's directory in "@eaDir".
void carry_store(const std::string &source, const std::string &destination, bool move, bool fullDirectory);

// After the file itself was renamed. What stands under the old name does not matter.
void rename_store(const std::string &before, const std::string &path);

// The file itself may be gone, which leaves what was kept beside it. Where its volume keeps it in the file itself it
// cannot be removed as a whole.
void remove_store(const std::string &path);

// Moves attributes that lie in the resource file to where they belong. A file without one has nothing to repair.
void repair_store(const std::string &path);

} // namespace engine
