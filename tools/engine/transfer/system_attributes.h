// Attributes that the library leaves where they are.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace engine {

// Gives `destination` the attributes of "security." and "trusted." that `source` has, as root; nobody else may. Labels
// that the system gives to a file where it lies are left out. What does not go is for a comparison to tell. Links in
// the last component are followed.
//
// Answers which of them the volume has refused, with errno.
using RefusedAttributes = std::vector<std::pair<std::string, int>>;
RefusedAttributes copy_system_attributes(const std::string &source, const std::string &destination);

// The same of those of users ("user."), but for what is how a platform or a store keeps something else.
RefusedAttributes copy_user_attributes(const std::string &source, const std::string &destination);

} // namespace engine
