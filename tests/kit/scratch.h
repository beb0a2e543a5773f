// Files for a test to work on: a fresh directory, its content, and what a file looks like.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace kit {

// A new directory under TMPDIR (else /tmp), removed with everything in it at the end.
class ScratchDirectory {
  public:
    ScratchDirectory();
    ScratchDirectory(const ScratchDirectory &) = delete;
    ScratchDirectory &operator=(const ScratchDirectory &) = delete;
    ~ScratchDirectory();

    const std::string &path() const { return m_path; }
    std::string operator/(std::string_view name) const { return m_path + "/" + std::string(name); }

  private:
    std::string m_path;
};

void writeFile(const std::string &path, std::string_view content, mode_t mode = 0644);
std::string readFile(const std::string &path);
bool exists(const std::string &path);                           // lstat
struct stat statOf(const std::string &path);                    // lstat; all zero when there is none
std::vector<std::string> namesIn(const std::string &directory); // sorted, without "." and ".."
// A new directory far below `root`, whose path has exactly `length` bytes. Each one on the way is new.
std::string makeDeepDirectory(const std::string &root, size_t length);
// Bytes that look random and are the same for the same seed.
std::string pattern(size_t size, uint32_t seed = 1);
// A file of `size` bytes whose data lie in the extents given as {offset, length}; the rest are holes.
struct Extent {
    off_t offset, length;
};
void writeSparse(const std::string &path, off_t size, const std::vector<Extent> &extents, uint32_t seed = 1);
// The extents as the file system tells them by SEEK_DATA and SEEK_HOLE.
std::vector<Extent> extentsOf(const std::string &path);
void setAttribute(const std::string &path, const std::string &name, std::string_view value);
// The value, or "" when there is none.
std::string attribute(const std::string &path, const std::string &name);

} // namespace kit
