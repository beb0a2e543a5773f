// Volumes that are mounted where somebody would copy, rename or remove.
#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace engine {

// Where the first volume is mounted at the directory `path` (if `itself`) or somewhere below it; nothing: none is. Asks
// the kernel's table of mounts. Throws Failure when that cannot be read.
std::optional<std::string> mount_in(const std::string &path, bool itself);

// All that are mounted somewhere below, by what is behind the path of the directory: "/sub/mounted". Throws Failure.
std::vector<std::string> mounts_below(const std::string &path);

// Whether an open directory (O_PATH will do) is the root of what is mounted somewhere. Older kernels do not tell, where
// it is taken for one if its volume is another than `above`'s.
bool is_mount_root(int directory, dev_t above);

} // namespace engine
