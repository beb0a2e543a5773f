// Paths as the library takes them, made from paths as people give them.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// Why the arguments of a command make no sense together. Nothing has been done yet.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// `path` from the root, without doubled slashes, single dots and slashes at the end. Symbolic links and ".." stay as
// they are: what they mean is for the kernel to say. Throws UsageError for an empty path.
std::string absolute_path(std::string_view path);

// The last component of an absolute path, and what is before it ("/" for a name in the root).
std::string base_name(std::string_view path);
std::string parent_of(std::string_view path);

// Whether a path as given ends in a component ".".
bool names_contents(std::string_view given);

// Where sources go: one pair of absolute paths for each.
struct Errand {
    std::string source, destination;
};
// The habits of cp and mv: a destination that is a directory, or is written with a slash at its end, means into it, and
// several sources need one; "." and "photos/." mean what the directory holds, and ".." is refused. Throws UsageError.
std::vector<Errand> plan_errands(const std::vector<std::string> &sources, const std::string &destination);

} // namespace tool
