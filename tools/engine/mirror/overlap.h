// Whether two directories share anything.
#pragma once

#include <optional>
#include <string>

namespace engine {

// Whether one of them is the other or lies in it, by whatever name: symbolic links are seen through, and so are volumes
// of which parts are mounted at several places. `other` need not exist.
bool overlap(const std::string &one, const std::string &other);

// Where a volume is mounted below `one` that overlaps with `other`, or one below `other` that overlaps with `one` or
// with what is mounted there: two that share nothing themselves are led to the same directories by it. Nothing:
// nowhere. `oneFileSystem`: nobody goes from `one` to another volume that is mounted below it, but to a part of its
// own. Throws Failure where the table of mounts cannot be read.
std::optional<std::string> overlap_by_mount(const std::string &one, const std::string &other, bool oneFileSystem);

} // namespace engine
