// Files with a resource fork that is reached as the pseudo-file "<file>/rsrc", as volumes with such forks show them. No
// file system of a stock machine can (the kernel looks nothing up in a regular file), so the double is a directory with
// a file "rsrc" in it that stat() calls a regular file. Permissions are the kernel's own: without the right to execute
// the double, nobody but root reaches the fork.
#pragma once

#include <string>
#include <string_view>
#include <sys/stat.h>

namespace kit {

class ForkDouble {
  public:
    // Makes the double at `path`, with that fork and those permissions.
    static void make(const std::string &path, std::string_view fork, mode_t mode = 0644);
    // The fork's path and its bytes.
    static std::string forkOf(const std::string &path) { return path + "/rsrc"; }
    static std::string read(const std::string &path);
    // Forgets the doubles; what is on disk stays. Every test starts so.
    static void reset();
};

// For the wrapper of stat(): what it found at `path`, as a regular file where that is a double.
void shapeAsFile(const char *path, struct stat *found);

} // namespace kit
