// Owner of a directory stream.
#pragma once

#include <dirent.h>

namespace vexo {

class Dir {
  public:
    Dir() = default;
    explicit Dir(DIR *stream) : m_stream(stream) {}
    explicit Dir(const char *path) : m_stream(::opendir(path)) {}
    Dir(Dir &&other) noexcept : m_stream(other.m_stream) { other.m_stream = nullptr; }
    Dir &operator=(Dir &&other) noexcept {
        if (this != &other) {
            close();
            m_stream = other.m_stream;
            other.m_stream = nullptr;
        }
        return *this;
    }
    Dir(const Dir &) = delete;
    Dir &operator=(const Dir &) = delete;
    ~Dir() { close(); }

    explicit operator bool() const { return m_stream != nullptr; }
    DIR *get() const { return m_stream; }
    const dirent *read() { return ::readdir(m_stream); }
    void close() {
        if (m_stream != nullptr) {
            ::closedir(m_stream);
            m_stream = nullptr;
        }
    }

  private:
    DIR *m_stream = nullptr;
};

} // namespace vexo
