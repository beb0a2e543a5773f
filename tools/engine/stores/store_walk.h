// The way through the directories whose stores are looked into: of a file what is kept for it, of a directory that and
// all that is kept for what lies in it.
#pragma once

#include "tools/engine/stores/store_place.h"
#include "tools/engine/walk/held_entry.h"

#include <functional>
#include <string>
#include <sys/stat.h>

namespace engine {

struct SurveyOptions {
    bool recursive = false; // what lies below a directory, too
    bool oneVolume = false; // but not other volumes that are mounted there
};

struct StoreWalk {
    // A directory. `only`: what is kept for that entry of it alone; empty: everything in it. The kind of the place is
    // not asked for.
    std::function<void(const StorePlace &place, const std::string &only)> visit;
    std::function<void(const std::string &path, const std::string &reason)> unreadable;
    std::function<bool()> stopped;
    std::function<bool(const struct stat &directory)> passed = {}; // whether one is not gone into
};

// Throws Failure for what has no store, or is one.
void walk_stores(const HeldEntry &entry, const SurveyOptions &options, const StoreWalk &walk);

} // namespace engine
