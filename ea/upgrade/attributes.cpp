// Upgrading the attributes: the old files, or the "._" file where that is newer, become the attribute stream.
#include "ea/ea.h"
#include "ea/files/positioned.h"
#include "ea/files/store_entry.h"
#include "ea/files/store_file.h"
#include "ea/names/store.h"
#include "ea/stream/file.h"
#include "ea/stream/handle.h"
#include "ea/upgrade/upgrade.h"
#include "support/dir.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/heap.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <limits>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace vexo {
namespace {

// Files that other services keep beside the attributes: they stay where they are.
bool is_ignored(std::string_view name) {
    const bool picture = name.ends_with(".jpg") || name.ends_with(".png");
    return name == "." || name == ".." || name == "offset" || name == "ART_MXAUDIO.jpg" ||
           (picture && name.find("APIC") != std::string_view::npos) || name.starts_with(kOldPrefix) ||
           name.find(':') != std::string_view::npos;
}

// Whether the volume has no room for that much more, so that a write failed for that.
bool is_full(int fd, size_t size) {
    struct statvfs volume;
    return ::fstatvfs(fd, &volume) == 0 && volume.f_bavail < size / volume.f_frsize + 2;
}

void log_refused_write() {
    VEXO_LOG_ERROR(VEXO_UPGRADE_HERE, "VEXOEASWrite error, VexoErr=[0x%04X %s:%d]", VLIBCErrGet(), VLIBCErrorGetFile(),
                   static_cast<int>(VLIBCErrorGetLine()));
}

// The attribute files as they become a stream. A file that cannot be converted stays where it is, and the others go on.
class Conversion {
  public:
    Conversion(const char *path, Dir &old) : m_path(path), m_old(old) {}

    // Fills the empty file. The attribute files go only when it holds all that it is to hold: after a write that failed
    // half way nothing in it can be relied on, and it is built anew without the value that spoilt it.
    int run(int fd);

  private:
    // What became of one file. `refused`: it stays, and the stream is as it was; `spoilt`: the stream is not.
    enum class Entry { written, refused, spoilt };
    enum class Walk { complete, spoilt, no_memory };

    Walk write_entries(VEXOEAS *stream);
    Entry write_entry(VEXOEAS *stream, const char *name, size_t number);
    bool has_path(const char *name) const;
    bool read_file(const char *name, size_t *size);
    bool is_passed_over(size_t number) const;
    bool pass_over(size_t number);
    void remove_converted(VEXOEAS *stream);

    const char *m_path;
    Dir &m_old;
    HeapBuffer m_value;
    HeapBuffer m_passedOver; // by the number of an entry in the directory: whether it stays
    // The smallest value that spoilt the stream because the volume was full, and its number. One behind it that is not
    // smaller would do the same, and each that does costs all the others once more.
    size_t m_tooLarge = std::numeric_limits<size_t>::max();
    size_t m_tooLargeAt = 0;
};

int Conversion::run(int fd) {
    for (;;) {
        const StreamHandle stream(fd, F_WRLCK);
        if (!stream) {
            return -1;
        }
        switch (write_entries(stream.get())) {
        case Walk::complete:
            if (stream->header.attrCount > 0 && VEXOEASFlush(stream.get()) < 0) {
                return -1;
            }
            remove_converted(stream.get());
            return kConverted;
        case Walk::no_memory:
            return fail(Error::out_of_memory_ea, VEXO_UPGRADE_HERE);
        case Walk::spoilt:
            break;
        }
        if (::ftruncate(fd, 0) != 0) {
            return fail(Error::file_operation, VEXO_UPGRADE_HERE);
        }
    }
}

// One walk over the directory, up to its end or to the value that spoilt the stream.
Conversion::Walk Conversion::write_entries(VEXOEAS *stream) {
    ::rewinddir(m_old.get());
    size_t number = 0;
    for (const dirent *entry = m_old.read(); entry != nullptr; entry = m_old.read(), ++number) {
        if (is_ignored(entry->d_name) || is_passed_over(number)) {
            continue;
        }
        const Entry result = write_entry(stream, entry->d_name, number);
        if (result != Entry::written && !pass_over(number)) {
            return Walk::no_memory;
        }
        if (result == Entry::spoilt) {
            return Walk::spoilt;
        }
    }
    return Walk::complete;
}

bool Conversion::is_passed_over(size_t number) const {
    return number < m_passedOver.size() && m_passedOver.data()[number] != 0;
}

// false: out of memory.
bool Conversion::pass_over(size_t number) {
    const size_t before = m_passedOver.size();
    if (number >= before) {
        if (!m_passedOver.resize(number + 1)) {
            return false;
        }
        std::memset(m_passedOver.data() + before, 0, number + 1 - before);
    }
    m_passedOver.data()[number] = 1;
    return true;
}

// Whether the file has as many attributes as the handle says.
bool has_what_it_should(const VEXOEAS &stream) {
    const KeepErrors keep;
    if (eas::is_empty(stream.fd)) {
        return stream.header.attrCount == 0;
    }
    VEXOEASHeader header;
    return eas::read_header(stream.fd, header, kUpgradeSource) == 0 && header.attrCount == stream.header.attrCount;
}

Conversion::Entry Conversion::write_entry(VEXOEAS *stream, const char *name, size_t number) {
    size_t size = 0;
    if (!has_path(name) || !read_file(name, &size)) {
        return Entry::refused;
    }
    if (number > m_tooLargeAt && size >= m_tooLarge) {
        set_error(Error::write, VEXO_UPGRADE_HERE);
        log_refused_write();
        return Entry::refused;
    }
    constexpr int kOverwrite = 1;
    if (VEXOEASWrite(stream, name, m_value.data(), static_cast<uint32_t>(size), 0, kOverwrite) != -1) {
        return Entry::written;
    }
    log_refused_write();
    // A failed change is undone, but that may fail too; then the file does not have what the handle says.
    if (has_what_it_should(*stream)) {
        return Entry::refused;
    }
    if (is_full(stream->fd, size)) {
        m_tooLarge = size;
        m_tooLargeAt = number;
    }
    return Entry::spoilt;
}

// Its path is that of a companion, and may be too long for one.
bool Conversion::has_path(const char *name) const {
    PathBuffer file;
    if (VEXOEAPath(kOlderLayout, m_path, name, file.fill(), PathBuffer::kUsable, kStreamCompanion) == 0) {
        return true;
    }
    VEXO_LOG_ERROR(VEXO_UPGRADE_HERE, "cannot EAPath[%s][%s] VexoErr=[0x%04X %s:%d]", m_path, name, VLIBCErrGet(),
                   VLIBCErrorGetFile(), static_cast<int>(VLIBCErrorGetLine()));
    return false;
}

// Reads the whole of an attribute file into the value buffer. false, with the error set: it is passed over.
bool Conversion::read_file(const char *name, size_t *size) {
    const int directory = ::dirfd(m_old.get());
    struct stat status;
    if (::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        set_error(Error::file_operation, VEXO_UPGRADE_HERE);
        return false;
    }
    if (!S_ISREG(status.st_mode) || status.st_size > std::numeric_limits<uint32_t>::max()) {
        set_error(Error::read, VEXO_UPGRADE_HERE);
        return false;
    }
    const Fd fd = open_store_file_in(directory, name, O_RDONLY);
    if (!fd) {
        set_error(Error::open, VEXO_UPGRADE_HERE);
        return false;
    }
    *size = static_cast<size_t>(status.st_size);
    if (!m_value || m_value.size() < *size) {
        m_value = HeapBuffer::uninitialised(*size);
        if (!m_value) {
            set_error(Error::out_of_memory_ea, VEXO_UPGRADE_HERE);
            return false;
        }
    }
    if (!read_at(fd.get(), m_value.data(), *size, 0)) {
        set_error(Error::read, VEXO_UPGRADE_HERE);
        return false;
    }
    return true;
}

// The files whose content the stream holds.
void Conversion::remove_converted(VEXOEAS *stream) {
    const KeepErrors keep;
    ::rewinddir(m_old.get());
    while (const dirent *entry = m_old.read()) {
        if (!is_ignored(entry->d_name) && VEXOEASSearch(stream, entry->d_name) >= 0) {
            ::unlinkat(::dirfd(m_old.get()), entry->d_name, 0);
        }
    }
}

class AttributeUpgrade {
  public:
    explicit AttributeUpgrade(const char *path) : m_path(path) {}

    int run() {
        if (VEXOEAPath(kCurrentLayout, m_path, kEaStream, m_stream.fill(), PathBuffer::kUsable, kStreamCompanion) < 0 ||
            VEXOEADirPath(kPerFileDirectory, m_path, m_directory.fill(), PathBuffer::kUsable) < 0) {
            return -1;
        }
        if (const int current = look_for_store(m_stream.c_str()); current != 0) {
            return current < 0 ? -1 : kAlreadyCurrent;
        }
        m_old = Dir::of(open_store_directory(m_directory.c_str()));
        return remove_old_directory(m_directory.c_str(), convert());
    }

  private:
    int convert();
    time_t newest_attribute();
    int look_at_apple_double(const char *companion, time_t *accessed);
    int move_apple_double(const char *companion);
    int build_stream();

    const char *m_path;
    PathBuffer m_stream;    // the new stream file
    PathBuffer m_directory; // the old directory of attribute files
    Dir m_old;              // empty when there is none
};

time_t AttributeUpgrade::newest_attribute() {
    time_t newest = 0;
    if (!m_old) {
        return newest;
    }
    while (const dirent *entry = m_old.read()) {
        struct stat status;
        if (!is_ignored(entry->d_name) &&
            ::fstatat(::dirfd(m_old.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            status.st_atime > newest) {
            newest = status.st_atime;
        }
    }
    return newest;
}

// When it was last read, before the check, which reads it and would make it newer; 0 where there is none, or what is
// there is something else. -1 where that cannot be told, reported: it may be the newer of the two.
int AttributeUpgrade::look_at_apple_double(const char *companion, time_t *accessed) {
    *accessed = 0;
    struct stat status;
    if (look_in_store(companion, status) != 0) {
        return says_absent(errno) || errno == ENAMETOOLONG ? 0 : fail(Error::file_operation, VEXO_UPGRADE_HERE);
    }
    constexpr int kGenuine = 0;
    constexpr int kFailed = -1;
    constexpr int kOtherContent = -3;
    errno = 0;
    const int answer = VEXOEACheckADFile(companion);
    if (answer == kFailed) {
        return -1;
    }
    if (answer == kOtherContent && errno != 0 && S_ISREG(status.st_mode)) {
        return fail(Error::read, VEXO_UPGRADE_HERE);
    }
    *accessed = answer == kGenuine ? status.st_atime : 0;
    return 0;
}

// The newer of the two layouts a file may have been through becomes the stream.
int AttributeUpgrade::convert() {
    const time_t newest = newest_attribute();
    PathBuffer companion;
    if (VEXOEAADPath(m_path, companion.fill(), PathBuffer::kUsable) < 0) {
        return last_error() == Error::name_too_long ? kConverted : -1;
    }
    time_t doubled = 0;
    if (look_at_apple_double(companion.c_str(), &doubled) < 0) {
        return -1;
    }
    if (newest == 0 && doubled == 0) {
        return kNothingOld;
    }
    return doubled >= newest ? move_apple_double(companion.c_str()) : build_stream();
}

int AttributeUpgrade::move_apple_double(const char *companion) {
    PathBuffer directory;
    if (VEXOEADirPath(kSharedDirectory, m_path, directory.fill(), PathBuffer::kUsable) < 0 ||
        VEXOEAMKDir(0, directory.c_str()) < 0) {
        return -1;
    }
    return rename_in_store(companion, m_stream.c_str()) == 0 ? kConverted : fail(Error::rename_ea, VEXO_UPGRADE_HERE);
}

int AttributeUpgrade::build_stream() {
    // Exclusively: what another process has made meanwhile is not ours to write over or to remove.
    const Fd fd = open_store_file(m_stream.c_str(), O_RDWR | O_CREAT | O_EXCL);
    if (!fd) {
        return fail(Error::open, VEXO_UPGRADE_HERE);
    }
    const int result = Conversion(m_path, m_old).run(fd.get());
    struct stat status;
    const bool empty = ::fstat(fd.get(), &status) == 0 && status.st_size == 0;
    if (result < 0 || empty) {
        // Left behind it would say that there is nothing left to convert.
        const KeepErrors keep;
        (void)unlink_store_file(m_stream.c_str());
    }
    return result;
}

} // namespace

int upgrade_attributes(const char *path) {
    return AttributeUpgrade(path).run();
}

} // namespace vexo
