// Attributes that only root can set, which the library leaves where they are.
#pragma once

#include <string>

namespace engine {

// Gives `destination` the attributes of "security." and "trusted." that `source` has, as root; nobody else may. Labels
// that the system gives to a file where it lies are left out. The names of those that did not go, joined by commas;
// empty: all did. With the "user." attributes and ACLs among them that the library has not carried, where `compared`
// says that both volumes keep them in the same form. Links in the last component are followed.
std::string copy_system_attributes(const std::string &source, const std::string &destination, bool compared);

} // namespace engine
