// What the bare platform answers, and what it was asked to do.
#pragma once

#include <string>
#include <vector>

namespace bare {

extern int volumeType; // of every path
// "function(path)" of each call that gives a file what belongs to it.
extern std::vector<std::string> calls;

} // namespace bare
