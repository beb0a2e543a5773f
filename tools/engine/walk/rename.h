// Giving an entry another name, between open directories.
#pragma once

#include <string>

namespace engine {

// False, with EEXIST, when anything stands under the new name: the kernel says so, at the moment of the renaming. False
// with another errno for another reason. On a volume whose renaming always replaces the name is taken first.
bool rename_without_replacing(int fromDirectory, const std::string &from, int toDirectory, const std::string &to);

} // namespace engine
