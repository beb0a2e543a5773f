// Symbolic links, which are made anew without a look at what they lead to. The library, which would open them, is not
// asked.
#pragma once

#include "tools/engine/report/problem.h"
#include "tools/engine/transfer/held_directory.h"

#include <optional>
#include <string>
#include <sys/stat.h>

namespace engine {

// Makes the link `made` with the target of the source as it is written, its owner and times, as far as they go. EEXIST
// as a problem: something stands under that name.
std::optional<Problem> make_link(const HeldDirectory &from, const std::string &source, const struct stat &entry,
                                 const HeldDirectory &to, const std::string &made);

// Gives a new link what the source has: its owner and times, as far as they go.
void finish_link(const struct stat &source, int directory, const std::string &name);

} // namespace engine
