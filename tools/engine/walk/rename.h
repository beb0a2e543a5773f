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

// The errno with which the kernel would keep an entry of an open directory (O_PATH will do) from losing its name,
// whether by removal, by renaming or to another entry; 0: it would not, or there is no such entry.
int refusal_to_go(int directory, const std::string &name);

// The same for writing into a file that may be opened for it.
int refusal_to_be_written(int directory, const std::string &name);

} // namespace engine
