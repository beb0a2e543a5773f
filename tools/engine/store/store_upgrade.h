// From the layout of stores with a small file for each attribute to the current one.
#pragma once

#include "tools/engine/walk/held_entry.h"

#include <functional>
#include <string>
#include <vector>

namespace engine {

// The stores of the old layout that a file has, by the names that convert them.
std::vector<std::string> old_stores(const std::string &path);

enum class Upgraded { converted, was_current, failed };

struct UpgradeResult {
    Upgraded what = Upgraded::converted;
    std::string reason = {}; // of failed; there something may have been converted
};

// Converts one of them.
UpgradeResult upgrade_store(const std::string &path, const std::string &store);

// What a stopped run left when there was nothing more to convert: an empty directory. Throws Failure.
void finish_upgrade(const std::string &path);

// Calls `visit` for every file and directory below `top` that can have a store, if that is a directory, and
// `unreadable`, with errno, for a directory that cannot be listed. Ends early when `stopped` says so. `held` is the
// same entry by the directory that holds it, which stays open: whoever works on that is not led out of the tree when
// somebody puts a link in place of a directory.
struct UpgradeWalk {
    std::function<void(const std::string &path, const std::string &held)> visit;
    std::function<void(const std::string &path)> unreadable;
    std::function<bool()> stopped;
};
void walk_for_upgrade(const HeldEntry &top, const UpgradeWalk &walk);

} // namespace engine
