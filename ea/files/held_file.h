// A file of somebody's, held while its mode changes: what stands at its path afterwards may be another's. Nothing here
// reports: results and errno only.
#pragma once

#include "support/fd.h"

#include <sys/stat.h>

namespace vexo {

class HeldFile {
  public:
    HeldFile() = default;
    // The file or directory that was `seen` at the path. Empty, with errno, where that cannot be had: ESTALE when
    // something else stands there by now, EINVAL when it is neither.
    HeldFile(const char *path, const struct stat &seen);

    explicit operator bool() const { return static_cast<bool>(m_file); }
    // Open for reading or for writing; -1 where its owner has no right to either.
    int fd() const { return m_isOpen ? m_file.get() : -1; }
    int change_mode(mode_t mode) const;

  private:
    Fd m_file;
    bool m_isOpen = false; // and not a mere place
};

} // namespace vexo
