// A lock on directories, for the short time in which an entry and what is kept beside it take their places: two
// commands that bring something to one name would else end with the file of one and the store of the other.
#pragma once

#include "tools/engine/walk/descriptor.h"

#include <sys/stat.h>

namespace engine {

// The kernel's own (flock) on the directory itself: it ends with its owner, whatever becomes of that, and leaves
// nothing behind. Of two directories always the same one comes first, so that nobody waits for one who waits for him.
class DirectoryLock {
  public:
    // By descriptors, for which O_PATH is enough; below 0: none.
    explicit DirectoryLock(int directory, int other = -1);

    // Somebody else has it, and did not let go of it in time: errno is EWOULDBLOCK.
    bool is_refused() const { return m_refused; }
    // False too where the directory cannot be read, or its volume knows no locks: nobody else has it there either.
    bool is_held() const { return m_held; }

  private:
    bool take(int directory, const struct stat &found, Descriptor &lock);

    Descriptor m_first{-1}, m_second{-1};
    bool m_refused = false, m_held = false;
};

} // namespace engine
