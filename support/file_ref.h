// A file that a step works on: by its path, or, where the engine holds it open, by a descriptor, which spares the
// kernel a walk along the path for each call. Nothing here reports: results and errno are the kernel's.
#pragma once

#include <sys/stat.h>
#include <sys/xattr.h>

namespace vexo {

class FileRef {
  public:
    FileRef(const char *path, int fd = -1) : m_path(path), m_fd(fd) {} // implicit: mostly there is only a path
    static FileRef descriptor(int fd) { return {nullptr, fd}; }

    // For log lines and for what is only done by path. Null where there is only the descriptor.
    const char *path() const { return m_path; }
    bool is_open() const { return m_fd >= 0; }
    int fd() const { return m_fd; }

    int status(struct stat &out) const { return is_open() ? ::fstat(m_fd, &out) : ::stat(m_path, &out); }
    int change_mode(mode_t mode) const { return is_open() ? ::fchmod(m_fd, mode) : ::chmod(m_path, mode); }
    ssize_t get_attribute(const char *name, void *value, size_t size) const {
        return is_open() ? ::fgetxattr(m_fd, name, value, size) : ::getxattr(m_path, name, value, size);
    }
    int set_attribute(const char *name, const void *value, size_t size, int flags) const {
        return is_open() ? ::fsetxattr(m_fd, name, value, size, flags) : ::setxattr(m_path, name, value, size, flags);
    }
    int remove_attribute(const char *name) const {
        return is_open() ? ::fremovexattr(m_fd, name) : ::removexattr(m_path, name);
    }
    ssize_t list_attributes(char *names, size_t size) const {
        return is_open() ? ::flistxattr(m_fd, names, size) : ::listxattr(m_path, names, size);
    }

  private:
    const char *m_path;
    int m_fd;
};

} // namespace vexo
