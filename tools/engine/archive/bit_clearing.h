// Clears the archive bits of what a backup has brought, each only while its source still is what was proven to have
// arrived.
//
// Before a bit goes both are looked at: the source is the file that was copied and has not changed since, by its change
// time too, nor has what is kept beside it; the copy has all that is the source's. Meanwhile nobody can open the file
// for writing, where the kernel allows that, and nobody has. Then the bit goes, and both are looked at once more: where
// anything changed in between the bit is set again.
#pragma once

#include "tools/engine/archive/arrivals.h"
#include "tools/engine/losses/loss.h"
#include "tools/engine/transfer/held_directory.h"

#include <map>
#include <string>
#include <vector>

namespace engine {

enum class BitFate {
    cleared,
    stays,  // it is set, and the next backup takes the entry again
    failed, // it could not be cleared, or not be set again
};

class BitObserver {
  public:
    BitObserver() = default;
    BitObserver(const BitObserver &) = delete;
    BitObserver &operator=(const BitObserver &) = delete;
    virtual ~BitObserver() = default;
    // Of an entry that has the bit. `why`: where it was not cleared.
    virtual void bit(const std::string &source, BitFate fate, const std::string &why) = 0;
};

class BitClearing {
  public:
    // The tops, absolute paths. Links in the trees are not followed. `accepted`: what the copies may lack.
    BitClearing(const std::string &source, const std::string &destination, LossSet accepted, BitObserver &observer);

    // Throws Failure where the arrivals cannot be read back.
    void run(const Arrivals &arrivals);

  private:
    // A directory of a tree, held as long as entries of it follow.
    class Way {
      public:
        explicit Way(const std::string &top);
        // The directory that a path below the top lies in, of which the last part goes into `name`. Null: it is not
        // there.
        const HeldDirectory *to(const std::string &below, std::string &name);

      private:
        HeldDirectory m_above, m_top, m_current;
        std::string m_topName, m_below = {};
    };
    // The names of one file that have arrived, or one directory: they have one bit.
    using Group = std::vector<Arrival>;

    void settle(const Group &group);
    std::string clear(const Group &group, int fd, bool &failed);
    std::string change_of(const Group &group, const struct stat &held, bool cleared);
    std::string change_of(const Arrival &arrival, const struct stat &held, bool cleared);
    Descriptor opened(const Arrival &arrival, int flags);

    std::string m_source;
    Way m_from, m_to;
    LossSet m_accepted;
    BitObserver &m_observer;
    std::map<FileNumber, Group> m_groups = {}; // of which more names follow
};

} // namespace engine
