// Names for what is under way: an entry stands under one in the directory that it is made for, and gets its own name
// when it is whole. Who looks into such a directory after a kill knows what was not finished.
//
// Two forms. ".vexofileop-<pid>-<n>", with a suffix behind it or without, holds nothing that is not somewhere else as
// well: once the process is gone anybody may remove it. Whatever else begins with ".vexofileop-" is a command's own,
// and only that command knows what it is worth.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace engine {

// A name of the first form that this process has not given before. Somebody else may use it all the same: make the
// entry so that an existing one fails it, and take the next.
std::string next_private_name();

// Of either form: no entry for anybody to copy.
bool is_private_name(std::string_view name);

// The name without its suffix (".store" of ".vexofileop-7-1.store"); empty for one that is not of the first form.
std::string_view without_suffix(std::string_view privateName);

// What processes that are gone have left in an open directory, in order; nothing where it cannot be listed. A process
// is looked for by its number, so that what another machine is writing on a volume that both have mounted looks the
// same: it loses its unfinished copy, says so, and keeps its source.
std::vector<std::string> left_overs_in(int directory);

// Removes a file, a link or a directory with everything in it. No link is followed, and no mounted volume is entered.
// False, with errno: it is still there, or some of it.
bool remove_left_over(int directory, const std::string &name);

} // namespace engine
