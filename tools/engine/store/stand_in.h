// A file of nobody else's that the library carries a store to, in a private directory beside the destination: what it
// makes there for the moment is for nobody to read or change, whatever modes it gives.
#pragma once

#include "tools/engine/store/private_file.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/held_entry.h"

#include <memory>
#include <string>

namespace engine {

class StandIn {
  public:
    // For `destination`, which has to outlive it. Throws Failure.
    StandIn(const HeldEntry &destination, StoreKind kind);
    StandIn(const StandIn &) = delete;
    StandIn &operator=(const StandIn &) = delete;

    // Of the file, which is called as the destination is.
    std::string path() const { return m_entry->path(); }
    const HeldEntry &entry() const { return *m_entry; }
    // The library takes the right to write away from a file that is locked, where volumes have no other way.
    bool is_locked_by_mode() const;

  private:
    PrivateDirectory m_directory;
    std::unique_ptr<const HeldEntry> m_entry;
};

} // namespace engine
