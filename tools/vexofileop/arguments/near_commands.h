// What somebody may have meant by a command that there is none of.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tool {

// Of `commands` ("copy", "ea get") those that `word` is called elsewhere ("cp"), or that are called so below another
// command, or else those that it is a slip of the fingers for; in their order, none or several.
std::vector<std::string> near_commands(std::string_view word, const std::vector<std::string> &commands);

} // namespace tool
