// An open file, closed with its owner.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace engine {

class Descriptor {
  public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    Descriptor(Descriptor &&other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~Descriptor();
    int get() const { return m_fd; }
    void swap(Descriptor &other) { std::swap(m_fd, other.m_fd); }

  private:
    int m_fd;
};

// The directory `name` of the open directory `parent`, which is no symbolic link. A descriptor of -1, with errno, when
// it cannot be opened.
Descriptor open_directory(int parent, const std::string &name);

// All of a text to an open file. False, with errno.
bool write_all(int fd, std::string_view text);

// The content of a regular file, at most `most` bytes of it; its whole size goes into `size`. Throws Failure.
std::string read_regular_file(const std::string &path, size_t most, uint64_t *size);

} // namespace engine
