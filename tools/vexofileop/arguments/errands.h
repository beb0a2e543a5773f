// Where files go, by the habits of cp and mv.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// Whether a path as given ends in a component ".".
bool names_contents(std::string_view given);

// Names that go below a directory with the directories on their way.
struct RelativeNames {
    std::vector<std::string> names; // "a/b/c"; empty: the directory itself
    bool followed = false;          // links on the way are
    bool alone = false;             // directories go without what they hold
    bool unfinished = false;        // and without what is theirs
    bool directoriesAlone = false;  // nothing else is named
};
// Where sources go: one pair of absolute paths for each; of relative names the two directories that they go down from.
struct Errand {
    std::string source, destination;
    std::optional<RelativeNames> below = {};
};
// What a destination is: by itself, or because it was said so (-t, -T).
enum class Target { as_it_is, directory, new_name };
// The habits of cp and mv: a destination that is a directory, or is written with a slash at its end, means into it, and
// several sources need one; "." and "photos/." mean what the directory holds, and ".." is refused. A new name is one
// even where a directory has it, which a tree is then merged into. Throws UsageError.
std::vector<Errand> plan_errands(const std::vector<std::string> &sources, const std::string &destination,
                                 Target kind = Target::as_it_is);

// The same for --relative, as with rsync: of each source the part behind "/./", or all of it, is made anew below the
// destination, which has to be a directory. What has ".." in that part is refused. Throws UsageError.
std::vector<Errand> plan_relative_errands(const std::vector<std::string> &sources, const std::string &destination);
// For a list of names below `base`: slashes at their start mean nothing, and ".." may not lead out of the base. A name
// that is there twice, or with `trees` below another one, goes once. `trees`: directories go with what they hold.
Errand plan_listed_errand(const std::vector<std::string> &names, const std::string &base,
                          const std::string &destination, bool trees);
// How many files, links and trees are asked for.
size_t number_of(const std::vector<Errand> &errands);

} // namespace tool
