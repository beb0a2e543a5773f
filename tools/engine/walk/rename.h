// Giving an entry another name, between open directories.
#pragma once

#include <string>

namespace engine {

// False, with EEXIST, when anything stands under the new name: the kernel says so, at the moment of the renaming. False
// with another errno for another reason. On a volume whose renaming always replaces the name is taken first.
bool rename_without_replacing(int fromDirectory, const std::string &from, int toDirectory, const std::string &to);

// Whether the kernel would rename an entry from one open directory (O_PATH will do) into another one of the same
// volume: not from one mount of it to another, and not into a directory of another project (ext4, XFS), whose quota the
// entry would pass by. What cannot be told of a project is taken for the same.
bool may_be_renamed(int fromDirectory, const std::string &from, int toDirectory);

} // namespace engine
