// The way to an entry of a store, gone without following a link.
#pragma once

#include "support/fd.h"

#include <fcntl.h>

namespace vexo {

// The directory that holds the last component of a path, entered without following a link from "@eaDir" on, and that
// component. A path that lies in no "@eaDir" is left to the kernel, whole. Nothing here reports: errno only.
class StorePlace {
  public:
    // The path stays the caller's, and lives as long as this.
    explicit StorePlace(const char *path);

    // false, with errno: the way there is not one of directories (ENOTDIR where a link stands).
    explicit operator bool() const { return !m_inStore || m_directory; }
    // For the calls that take a directory and a name.
    int directory() const { return m_inStore ? m_directory.get() : AT_FDCWD; }
    const char *name() const { return m_name; }

  private:
    const char *m_name;
    Fd m_directory;
    bool m_inStore = false;
};

} // namespace vexo
