// Entries that are carried as they are, without opening what they hold or lead to: symbolic links, and for a move also
// pipes, sockets and devices. The library, which would open them, is not asked.
#pragma once

#include "tools/engine/report/problem.h"

#include <optional>
#include <string>
#include <sys/stat.h>

namespace engine {

// `source` is the entry's own; `replace`: what stands at the destination goes. `ownerLost` becomes true for a link that
// was made anew and belongs to somebody else than its source. That the source of a move is still there is for the
// caller to see.
std::optional<Problem> move_as_it_is(const std::string &source, const struct stat &entry,
                                     const std::string &destination, bool replace, bool &ownerLost);
// A link made anew, with the target as it is written, owner and times.
std::optional<Problem> copy_link(const std::string &source, const struct stat &entry, const std::string &destination,
                                 bool replace, bool &ownerLost);

// Gives a new link what the source has: its owner, for which the result says whether it went, and times.
bool finish_link(const struct stat &source, const std::string &destination);

} // namespace engine
