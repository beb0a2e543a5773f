// What a tree has and its copy has not.
#pragma once

#include <functional>
#include <string>

namespace engine {

// Told of an entry of the source that is not in the copy, or not with everything.
using MissingEntry = std::function<void(const std::string &path, const std::string &why)>;

// Goes through the source, and gives how many entries it told of. Data are not read again: a file of the same size is
// the same. `type`: of the source's volume.
int compare_trees(const std::string &source, const std::string &destination, int type, const MissingEntry &missing);

} // namespace engine
