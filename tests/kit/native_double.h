// Apple's attribute names as the file system's own, which HFS+ has and the file systems of most test machines have not:
// on volumes that the test names, the attributes "com.apple.…" are kept under "user.com.apple.…" and shown without it.
#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>

namespace kit {

class NativeDouble {
  public:
    // Everything under `directory` is on such a volume.
    static void setVolume(const std::string &directory);
    // Forgets the volumes; what is on disk stays. Every test starts so.
    static void reset();
};

// For the wrappers of the attribute calls: the name that `name` is kept under at `path`.
std::string keptName(const char *path, const char *name);
// Rewrites the `size` bytes of names that listxattr() found at `path` to those shown, and gives their size.
size_t shownNames(const char *path, char *names, size_t size);
// Whether there is such a volume.
bool hasNativeVolumes();
// Whether names differ at `path` at all.
bool hasNativeNames(const char *path);

} // namespace kit
