// Owner of a directory stream.
#pragma once

#include "support/fd.h"

#include <dirent.h>
#include <fcntl.h>

namespace vexo {

class Dir {
  public:
    Dir() = default;
    explicit Dir(DIR *stream) : m_stream(stream) {}
    explicit Dir(const char *path) : m_stream(::opendir(path)) {}
    // A link at the end of the path is not followed: ENOTDIR or ELOOP.
    static Dir of_no_link(const char *path) {
        return of(Fd(::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)));
    }
    // Of a directory that is open, or of none: empty, with errno as it is.
    static Dir of(Fd fd) {
        Dir directory(fd ? ::fdopendir(fd.get()) : nullptr);
        if (directory) {
            (void)fd.release(); // the stream's now
        }
        return directory;
    }
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
