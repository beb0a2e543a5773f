// Removing what stands under a name with everything in it, the innermost first, whatever its depth.
#pragma once

#include "tools/engine/report/problem.h"

#include <functional>
#include <string>
#include <sys/stat.h>

namespace engine {

struct BottomUp {
    using Step = std::function<bool(int parent, const std::string &name, const std::string &path)>;
    // Whether a directory may be entered; one that may not stays.
    std::function<bool(int parent, const std::string &name, const struct stat &found, const std::string &path)> enter;
    Step unlink; // what is no directory. Whether it is gone
    Step finish; // a directory that is empty now. Whether it is gone
    std::function<void(const std::string &path, const Problem &problem)> left;
    std::function<bool()> stopped;
};

// Whether it is gone. `parent` is open; `path` is for people. Whoever exchanges a directory on the way leads it
// nowhere.
bool remove_bottom_up(int parent, const std::string &name, const std::string &path, const BottomUp &steps);

} // namespace engine
