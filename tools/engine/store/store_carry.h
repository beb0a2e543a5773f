// Carrying what one file has in its store to another that has a store already: on a stand-in first, so that whatever
// fails or is killed on the way leaves what only the destination has.
#pragma once

#include <string>

namespace engine {

// `move` and `fullDirectory` as for carry_store. `type` is that of the destination's volume, which keeps stores in
// files. Throws Failure.
void carry_to_files(const std::string &source, const std::string &destination, int type, bool move, bool fullDirectory);

} // namespace engine
