// Paths as the library takes them, and their parts.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace engine {

// `path` from the root, without doubled slashes, single dots and slashes at the end. Symbolic links and ".." stay as
// they are: what they mean is for the kernel to say. Throws InvalidRequest for an empty path.
std::string absolute_path(std::string_view path);

// The last component of an absolute path, and what is before it ("/" for a name in the root).
std::string base_name(std::string_view path);
std::string parent_of(std::string_view path);

// `directory` and a name in it.
std::string joined(const std::string &directory, const std::string &name);

// The components of a path without doubled slashes.
std::vector<std::string> names_in_path(std::string_view path);

} // namespace engine
