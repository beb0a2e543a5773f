// What lies in "@eaDir" and is no part of a store: the directory of an entry's own there, in which other services keep
// pictures, indexes and the like for it, and an "@eaDir" of a directory that holds nothing.
#pragma once

#include "tools/engine/compare/side.h"
#include "tools/engine/losses/loss.h"
#include "tools/engine/walk/descriptor.h"

#include <string>
#include <sys/stat.h>

namespace engine {

enum class Kept {
    own,         // "@eaDir/<name>" beside the entry
    empty_store, // "@eaDir" in the directory that the entry is
};

// A directory in one that is open.
struct KeptPlace {
    Descriptor parent{-1}; // below 0: not even that is there
    std::string name;
    bool there = false; // a directory; of an "@eaDir": without anything but the ".cover" that no store is kept for
};
// No link is followed. Throws Failure where nobody can tell.
KeptPlace kept_place(const Side &entry, Kept what);

// The volume as these entries see it: nothing is kept beside them.
VolumeFacts plain_facts(const VolumeFacts &facts);

// A loss of one of them as one of the entry that it is kept for. `path`: from "@eaDir" on, or from the directory in it.
Loss kept_loss(const Loss &loss, const std::string &path);
// One that the copy has not got at all.
Loss kept_loss(const struct stat &found, const std::string &path);

// No service goes deeper, and each level holds descriptors.
constexpr int kDeepestKept = 100;

} // namespace engine
