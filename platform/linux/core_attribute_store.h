// Where the DOS attributes and the creation time of a file are kept on this machine: in the attribute "user.DOSATTRIB",
// or, on FAT and exFAT, in the directory entry itself. Nothing here reports: results and errno are the kernel's.
#pragma once

#include "platform/linux/core_dos_attribute.h"

#include <cstdint>
#include <optional>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/xattr.h>

namespace vexo {

// The file meant: an open descriptor, or a path, followed through a last symbolic link or not.
class AttributeFile {
  public:
    static AttributeFile descriptor(int fd) { return {fd, nullptr, true}; }
    static AttributeFile path(const char *path) { return {-1, path, true}; }
    static AttributeFile link(const char *path) { return {-1, path, false}; }

    // What is stored, empty where nothing is or can be. `mode` is the file's: other things than files and directories
    // have no such attributes, and are not opened to find out.
    DosRecord read(mode_t mode) const;
    // Sets and clears DOS attributes, the rest of the record stays. Writes only what changes. 0, or -1 with errno;
    // EOPNOTSUPP: the volume has no place for them.
    int change(uint32_t set, uint32_t clear) const;
    // Stores the creation time; as above.
    int store_creation_time(uint64_t dosTime) const;
    // Stores the record of a file that has none yet; -1 with EEXIST where there is one.
    int store_first(const DosRecord &record) const { return store(record, XATTR_CREATE); }
    // Adds what the record of `source` has and this file's has not, and the bits that the platform has no word for.
    int take_from(const AttributeFile &source) const;
    // What is stored, where the volume can tell: 0, or -1 with errno.
    int load(DosRecord &record) const;

  private:
    AttributeFile(int fd, const char *path, bool follow) : m_fd(fd), m_path(path), m_follow(follow) {}

    int store(const DosRecord &record, int flags = 0) const;
    int status(struct stat &out) const;
    bool on_fat() const;
    std::optional<uint32_t> fat_attributes() const;
    int change_on_fat(uint32_t set, uint32_t clear) const;

    int m_fd;
    const char *m_path;
    bool m_follow;
};

} // namespace vexo
