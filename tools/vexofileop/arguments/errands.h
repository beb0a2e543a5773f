// Where files go, by the habits of cp and mv.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tool {

// Whether a path as given ends in a component ".".
bool names_contents(std::string_view given);

// Where sources go: one pair of absolute paths for each.
struct Errand {
    std::string source, destination;
    bool contents = false; // "photos/.": what the directory holds is meant, not the directory
};
// The habits of cp and mv: a destination that is a directory, or is written with a slash at its end, means into it, and
// several sources need one; "." and "photos/." mean what the directory holds, and ".." is refused. Throws UsageError.
std::vector<Errand> plan_errands(const std::vector<std::string> &sources, const std::string &destination);

} // namespace tool
