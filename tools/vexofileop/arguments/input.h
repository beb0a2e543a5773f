// Reading files, and what others send through stdin, as a whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tool {

class Descriptor {
  public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor();
    int get() const { return m_fd; }

  private:
    int m_fd;
};

// Everything in a file; "-" is stdin. A stop signal ends it with what has come so far. Throws Failure.
std::string read_input(const std::string &path);

// The content of a regular file, at most `most` bytes of it; its whole size goes into `size`. Throws Failure.
std::string read_regular_file(const std::string &path, size_t most, uint64_t *size);

} // namespace tool
