// Volumes that are mounted where a relocation would copy, rename or remove.
#pragma once

#include <optional>
#include <string>

namespace engine {

// Where the first volume is mounted at the directory `path` (if `itself`) or somewhere below it; nothing: none is. Asks
// the kernel's table of mounts. Throws Failure when that cannot be read.
std::optional<std::string> mount_in(const std::string &path, bool itself);

} // namespace engine
