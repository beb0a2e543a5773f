// Names as FAT and exFAT volumes take them, and Windows on them, so that it can be told of each what it was made from.
#pragma once

#include <string>

namespace engine {

// What a name becomes: reserved and control characters and bytes that are no text become "-", and so does a dot or a
// blank at its end; one that stands for a device gets a "-" behind that; one that its "._" file could not have beside
// it is cut. `number`: of several that become one, above 0 with the number before the extension. A name that needs none
// of that stays as it is.
std::string fat_form(const std::string &name, int number = 0);

// Whether it is what that name becomes, with any number.
bool is_fat_form(const std::string &made, const std::string &name);

} // namespace engine
