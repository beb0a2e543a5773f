#include "platform/linux/core_attribute_store.h"

#include "support/fd.h"
#include "support/guards.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/msdos_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/xattr.h>

namespace vexo {
namespace {

// Room for every version that is read; a longer value is none of them.
constexpr size_t kLongestRecord = 128;

// The file open for its attributes: the caller's descriptor, or one of our own.
class OpenFile {
  public:
    // O_NONBLOCK: should the path have become a device or a pipe since it was looked at, opening it does not wait.
    OpenFile(int fd, const char *path, bool follow)
        : m_own(fd >= 0 ? -1 : ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW))),
          m_fd(fd >= 0 ? fd : m_own.get()) {}
    int get() const { return m_fd; }

  private:
    Fd m_own;
    int m_fd;
};

bool has_attributes(mode_t mode) {
    return S_ISREG(mode) || S_ISDIR(mode);
}

} // namespace

// 0 with what is stored, also when that is nothing; -1 with errno when the volume cannot tell.
int AttributeFile::load(DosRecord &record) const {
    uint8_t value[kLongestRecord];
    const ssize_t size = m_path == nullptr ? ::fgetxattr(m_fd, kDosAttributeName, value, sizeof(value))
                         : m_follow        ? ::getxattr(m_path, kDosAttributeName, value, sizeof(value))
                                           : ::lgetxattr(m_path, kDosAttributeName, value, sizeof(value));
    if (size >= 0) {
        record = decode_dos_record({value, static_cast<size_t>(size)});
        return 0;
    }
    record = {};
    return errno == ENODATA || errno == ERANGE ? 0 : -1;
}

int AttributeFile::store(const DosRecord &record, int flags) const {
    const auto bytes = encode_dos_record(record);
    return m_path == nullptr ? ::fsetxattr(m_fd, kDosAttributeName, bytes.data(), bytes.size(), flags)
           : m_follow        ? ::setxattr(m_path, kDosAttributeName, bytes.data(), bytes.size(), flags)
                             : ::lsetxattr(m_path, kDosAttributeName, bytes.data(), bytes.size(), flags);
}

int AttributeFile::status(struct stat &out) const {
    return m_path == nullptr ? ::fstat(m_fd, &out) : m_follow ? ::stat(m_path, &out) : ::lstat(m_path, &out);
}

bool AttributeFile::on_fat() const {
    struct statfs volume {};
    const int result = m_path == nullptr ? ::fstatfs(m_fd, &volume) : ::statfs(m_path, &volume);
    return result == 0 && (volume.f_type == MSDOS_SUPER_MAGIC || volume.f_type == EXFAT_SUPER_MAGIC);
}

std::optional<uint32_t> AttributeFile::fat_attributes() const {
    const OpenFile file(m_fd, m_path, m_follow);
    uint32_t attributes = 0;
    if (file.get() < 0 || ::ioctl(file.get(), FAT_IOCTL_GET_ATTRIBUTES, &attributes) != 0) {
        return std::nullopt;
    }
    return attributes;
}

int AttributeFile::change_on_fat(uint32_t set, uint32_t clear) const {
    const OpenFile file(m_fd, m_path, m_follow);
    uint32_t before = 0;
    if (file.get() < 0) {
        return -1;
    }
    if (::ioctl(file.get(), FAT_IOCTL_GET_ATTRIBUTES, &before) != 0) {
        errno = errno == ENOTTY ? EOPNOTSUPP : errno; // exFAT, in a kernel that has not got the request
        return -1;
    }
    uint32_t after = (before & ~clear) | set;
    return after == before ? 0 : ::ioctl(file.get(), FAT_IOCTL_SET_ATTRIBUTES, &after);
}

DosRecord AttributeFile::read(mode_t mode) const {
    const KeepErrno keep;
    DosRecord record;
    if (has_attributes(mode) && load(record) != 0 && errno == EOPNOTSUPP && on_fat()) {
        record.attributes = fat_attributes();
    }
    return record;
}

int AttributeFile::change(uint32_t set, uint32_t clear) const {
    DosRecord record;
    if (load(record) != 0) {
        if (errno != EOPNOTSUPP) {
            return -1;
        }
        if (on_fat()) {
            return change_on_fat(set, clear);
        }
        errno = EOPNOTSUPP;
        return -1;
    }
    const uint32_t before = record.attributes.value_or(0);
    const uint32_t after = (before & ~clear) | set;
    if (after == before) {
        return 0;
    }
    uint32_t kind = 0; // attributes that are there say themselves whether they are a directory's
    if (!record.attributes) {
        struct stat found {};
        if (status(found) != 0) {
            return -1;
        }
        kind = S_ISDIR(found.st_mode) ? kDosDirectory : 0;
    }
    record.attributes = after | kind;
    return store(record);
}

// Most files that get a creation time are new and have no record yet. Of one that is there HFS+ says that it has no
// attributes.
int AttributeFile::store_creation_time(uint64_t dosTime) const {
    DosRecord record{std::nullopt, dosTime};
    if (store(record, XATTR_CREATE) == 0) {
        return 0;
    }
    if (errno != EEXIST && errno != EOPNOTSUPP) {
        return -1;
    }
    if (load(record) != 0) {
        return -1;
    }
    if (record.creationTime == dosTime) {
        return 0;
    }
    record.creationTime = dosTime;
    return store(record);
}

int AttributeFile::take_from(const AttributeFile &source) const {
    DosRecord from;
    DosRecord here;
    if (source.load(from) != 0) {
        return errno == EOPNOTSUPP ? 0 : -1;
    }
    if ((!from.attributes && !from.creationTime)) {
        return 0;
    }
    if (load(here) != 0) {
        return -1;
    }
    const DosRecord before = here;
    here.add(from);
    return here == before ? 0 : store(here);
}

} // namespace vexo
