// What is kept beside a file, at one moment: for whoever copied it and is about to remove it.
#pragma once

#include "tools/engine/compare/witness.h"
#include "tools/engine/transfer/held_directory.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace engine {

class StoreWitness {
  public:
    StoreWitness(const HeldDirectory &directory, const std::string &name);

    // Whether the same is kept for it now. Of a directory of its own in "@eaDir" the entries are looked at, not what is
    // in them.
    bool unchanged(const HeldDirectory &directory, const std::string &name) const;

    // A number that is another one for whatever is kept otherwise, as far as a number can be.
    uint64_t mark() const;

  private:
    std::array<std::optional<Witness>, 4> m_parts = {}; // "._" file, stream, resource, directory of its own
};

} // namespace engine
