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
};
// What a destination is: by itself, or because it was said so (-t, -T).
enum class Target { as_it_is, directory, new_name };
// The habits of cp and mv: a destination that is a directory, or is written with a slash at its end, means into it, and
// several sources need one; "." and "photos/." mean what the directory holds, and ".." is refused. A new name is one
// even where a directory has it, which a tree is then merged into. Throws UsageError.
std::vector<Errand> plan_errands(const std::vector<std::string> &sources, const std::string &destination,
                                 Target kind = Target::as_it_is);

} // namespace tool
