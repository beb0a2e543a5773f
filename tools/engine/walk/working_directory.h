// The process's working directory, which is another one meanwhile: the kernel finds a name in it in half the time of a
// path, and the more so of a path through /proc.
#pragma once

#include "tools/engine/walk/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

namespace engine {

class WorkingDirectory {
  public:
    WorkingDirectory() : m_before(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)) {}
    WorkingDirectory(const WorkingDirectory &) = delete;
    WorkingDirectory &operator=(const WorkingDirectory &) = delete;
    ~WorkingDirectory() { (void)!::fchdir(m_before.get()); }
    // False: it stays what it was.
    bool enter(int directory) const { return m_before.get() >= 0 && ::fchdir(directory) == 0; }

  private:
    Descriptor m_before;
};

} // namespace engine
