// Converting one store of a file from the old layout, which kept every attribute as a small file of its own and named
// streams with ":", into the current one.
#include "ea/ea.h"

#include "ea/carry/two_entries.h"
#include "ea/files/positioned.h"
#include "ea/names/store.h"
#include "ea/stream/handle.h"
#include "support/big_endian.h"
#include "support/dir.h"
#include "support/dos_attributes.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/heap.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

using namespace vexo;

namespace {

constexpr int kConverted = 0;
constexpr int kAlreadyCurrent = 1;
constexpr int kNothingOld = 2;

constexpr char kOldPrefix[] = "VEXO";
constexpr char kOldResource[] = "VEXO:Resource";

bool exists(const char *path) {
    struct stat status;
    return ::lstat(path, &status) == 0;
}

// Files that other services keep beside the attributes: they stay where they are.
bool is_ignored(std::string_view name) {
    const bool picture = name.ends_with(".jpg") || name.ends_with(".png");
    return name == "." || name == ".." || name == "offset" || name == "ART_MXAUDIO.jpg" ||
           (picture && name.find("APIC") != std::string_view::npos) || name.starts_with(kOldPrefix) ||
           name.find(':') != std::string_view::npos;
}

// What was emptied goes; what still holds something stays. The result of the conversion, or -1.
int remove_old_directory(const char *directory, int result) {
    if (::rmdir(directory) == 0 || errno == ENOTEMPTY || errno == ENOENT) {
        return result;
    }
    return fail(Error::remove, VEXO_HERE);
}

// ---- The attributes ----

class AttributeUpgrade {
  public:
    explicit AttributeUpgrade(const char *path) : m_path(path) {}

    int run() {
        if (VEXOEAPath(kCurrentLayout, m_path, kEaStream, m_stream.fill(), PathBuffer::kUsable, kStreamCompanion) < 0 ||
            VEXOEADirPath(kPerFileDirectory, m_path, m_directory.fill(), PathBuffer::kUsable) < 0) {
            return -1;
        }
        if (exists(m_stream.c_str())) {
            return kAlreadyCurrent;
        }
        m_old = Dir(m_directory.c_str());
        return remove_old_directory(m_directory.c_str(), convert());
    }

  private:
    int convert();
    time_t newest_attribute();
    int move_apple_double(const char *companion);
    int build_stream();
    int convert_files(int fd);
    bool write_entries(VEXOEAS *stream, size_t *spoiler);
    bool write_entry(VEXOEAS *stream, const char *name);
    bool is_passed_over(size_t number) const;
    bool pass_over(size_t number);
    void remove_converted(VEXOEAS *stream);
    bool read_file(const char *file, size_t *size);

    const char *m_path;
    PathBuffer m_stream;    // the new stream file
    PathBuffer m_directory; // the old directory of attribute files
    Dir m_old;              // empty when there is none
    HeapBuffer m_value;
    HeapBuffer m_passedOver; // by the number of an entry in the directory: whether it spoilt the stream
};

time_t AttributeUpgrade::newest_attribute() {
    time_t newest = 0;
    if (!m_old) {
        return newest;
    }
    while (const dirent *entry = m_old.read()) {
        struct stat status;
        if (!is_ignored(entry->d_name) && ::fstatat(::dirfd(m_old.get()), entry->d_name, &status, 0) == 0 &&
            status.st_atime > newest) {
            newest = status.st_atime;
        }
    }
    return newest;
}

// The newer of the two layouts a file may have been through becomes the stream.
int AttributeUpgrade::convert() {
    const time_t newest = newest_attribute();
    PathBuffer companion;
    if (VEXOEAADPath(m_path, companion.fill(), PathBuffer::kUsable) < 0) {
        return last_error() == Error::name_too_long ? kConverted : -1;
    }
    // Before the check, which reads the file and would make it newer.
    struct stat status;
    time_t doubled = ::stat(companion.c_str(), &status) == 0 ? status.st_atime : 0;
    if (VEXOEACheckADFile(companion.c_str()) != 0) {
        doubled = 0;
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
    return ::rename(companion, m_stream.c_str()) == 0 ? kConverted : fail(Error::rename_ea, VEXO_HERE);
}

// The attribute files go only when the stream holds all that it is to hold: after a write that failed half way nothing
// in it can be relied on.
int AttributeUpgrade::build_stream() {
    // Exclusively: what another process has made meanwhile is not ours to write over or to remove.
    const Fd fd(::open(m_stream.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0777));
    if (!fd) {
        return fail(Error::open, VEXO_HERE);
    }
    const int result = convert_files(fd.get());
    struct stat status;
    const bool empty = ::fstat(fd.get(), &status) == 0 && status.st_size == 0;
    if (result < 0 || empty) {
        // Left behind it would say that there is nothing left to convert.
        const KeepErrors keep;
        ::unlink(m_stream.c_str());
    }
    return result;
}

// A file that cannot be converted stays where it is, and the others go on. Where it spoilt the stream, that is built
// anew without it.
int AttributeUpgrade::convert_files(int fd) {
    for (;;) {
        const StreamHandle stream(fd, F_WRLCK);
        if (!stream) {
            return -1;
        }
        size_t spoiler = 0;
        if (write_entries(stream.get(), &spoiler)) {
            if (stream->header.attrCount > 0 && VEXOEASFlush(stream.get()) < 0) {
                return -1;
            }
            remove_converted(stream.get());
            return kConverted;
        }
        if (!pass_over(spoiler)) {
            return fail(Error::out_of_memory_ea, VEXO_HERE);
        }
        if (::ftruncate(fd, 0) != 0) {
            return fail(Error::file_operation, VEXO_HERE);
        }
    }
}

// One walk over the directory. false: a write failed, at the entry with that number.
bool AttributeUpgrade::write_entries(VEXOEAS *stream, size_t *spoiler) {
    ::rewinddir(m_old.get());
    size_t number = 0;
    while (const dirent *entry = m_old.read()) {
        if (!is_ignored(entry->d_name) && !is_passed_over(number) && !write_entry(stream, entry->d_name)) {
            *spoiler = number;
            return false;
        }
        ++number;
    }
    return true;
}

bool AttributeUpgrade::is_passed_over(size_t number) const {
    return number < m_passedOver.size() && m_passedOver.data()[number] != 0;
}

// false: out of memory.
bool AttributeUpgrade::pass_over(size_t number) {
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

// The files whose content the stream holds.
void AttributeUpgrade::remove_converted(VEXOEAS *stream) {
    const KeepErrors keep;
    ::rewinddir(m_old.get());
    while (const dirent *entry = m_old.read()) {
        if (!is_ignored(entry->d_name) && VEXOEASSearch(stream, entry->d_name) >= 0) {
            ::unlinkat(::dirfd(m_old.get()), entry->d_name, 0);
        }
    }
}

// Reads the whole of an attribute file into the value buffer. false, with the error set: it is passed over.
bool AttributeUpgrade::read_file(const char *file, size_t *size) {
    struct stat status;
    if (::stat(file, &status) != 0) {
        set_error(Error::file_operation, VEXO_HERE);
        return false;
    }
    const Fd fd(::open(file, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
        set_error(Error::open, VEXO_HERE);
        return false;
    }
    if (!S_ISREG(status.st_mode) || status.st_size > std::numeric_limits<uint32_t>::max()) {
        set_error(Error::read, VEXO_HERE);
        return false;
    }
    *size = static_cast<size_t>(status.st_size);
    if (!m_value || m_value.size() < *size) {
        m_value = HeapBuffer::uninitialised(*size);
        if (!m_value) {
            set_error(Error::out_of_memory_ea, VEXO_HERE);
            return false;
        }
    }
    if (!read_at(fd.get(), m_value.data(), *size, 0)) {
        set_error(Error::read, VEXO_HERE);
        return false;
    }
    return true;
}

// false: the write failed. What cannot be read is passed over.
bool AttributeUpgrade::write_entry(VEXOEAS *stream, const char *name) {
    PathBuffer file;
    if (VEXOEAPath(kOlderLayout, m_path, name, file.fill(), PathBuffer::kUsable, kStreamCompanion) < 0) {
        VEXO_LOG_ERROR(VEXO_HERE, "cannot EAPath[%s][%s] VexoErr=[0x%04X %s:%d]", m_path, name, VLIBCErrGet(),
                       VLIBCErrorGetFile(), static_cast<int>(VLIBCErrorGetLine()));
        return true;
    }
    size_t size = 0;
    if (!read_file(file.c_str(), &size)) {
        return true;
    }
    constexpr int kOverwrite = 1;
    if (VEXOEASWrite(stream, name, m_value.data(), static_cast<uint32_t>(size), 0, kOverwrite) == -1) {
        VEXO_LOG_ERROR(VEXO_HERE, "VEXOEASWrite error, VexoErr=[0x%04X %s:%d]", VLIBCErrGet(), VLIBCErrorGetFile(),
                       static_cast<int>(VLIBCErrorGetLine()));
        return false;
    }
    return true;
}

// ---- The resource ----

// What an AppleDouble resource says of the file itself.
struct FileFlags {
    bool locked = false;
    bool hidden = false;
};

bool read_word(int fd, uint64_t offset, uint16_t *word) {
    std::array<uint8_t, 2> bytes;
    if (!read_at(fd, bytes.data(), bytes.size(), offset)) {
        set_error(Error::read, VEXO_HERE);
        return false;
    }
    *word = static_cast<uint16_t>(big_endian::load(bytes.data(), bytes.size()));
    return true;
}

// Where the words with the flags lie; 0: there is none.
struct FlagPlaces {
    uint64_t finderFlags = 0;
    uint64_t attributes = 0;
};

bool find_flags(int fd, FlagPlaces *places) {
    constexpr size_t kHeaderSize = 26;
    constexpr size_t kDescriptorSize = 12;
    constexpr uint32_t kVersion2 = 0x00020000;
    constexpr uint64_t kFinderFlagsOffset = 8;
    constexpr uint64_t kAttributesOffset = 2;
    std::array<uint8_t, kHeaderSize> header;
    if (!read_at(fd, header.data(), header.size(), 0)) {
        set_error(Error::read, VEXO_HERE);
        return false;
    }
    const uint64_t version = big_endian::load(header.data() + 4, 4);
    const uint64_t count = big_endian::load(header.data() + 24, 2);
    if (version != kVersion2 || count == 0) {
        set_error(Error::upgrade_format, VEXO_HERE);
        return false;
    }
    for (uint64_t at = 0; at < count; ++at) {
        std::array<uint8_t, kDescriptorSize> descriptor;
        if (!read_at(fd, descriptor.data(), descriptor.size(), kHeaderSize + at * kDescriptorSize)) {
            set_error(Error::read, VEXO_HERE);
            return false;
        }
        const uint64_t id = big_endian::load(descriptor.data(), 4);
        const uint64_t offset = big_endian::load(descriptor.data() + 4, 4);
        if (id == kFinderInfoEntry) {
            places->finderFlags = offset + kFinderFlagsOffset;
        } else if (id == kFileServerInfoEntry) {
            places->attributes = offset + kAttributesOffset;
        }
    }
    if (places->finderFlags == 0 && places->attributes == 0) {
        set_error(Error::upgrade_format, VEXO_HERE);
        return false;
    }
    return true;
}

bool read_flags(const char *resource, FileFlags *flags) {
    constexpr uint16_t kAttributeLocked = 0x0020;
    constexpr uint16_t kAttributeHidden = 0x0001;
    constexpr uint16_t kFinderInvisible = 0x4000;
    const Fd fd(::open(resource, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
        set_error(Error::open, VEXO_HERE);
        return false;
    }
    FlagPlaces places;
    uint16_t attributes = 0;
    uint16_t finderFlags = 0;
    if (!find_flags(fd.get(), &places) ||
        (places.attributes != 0 && !read_word(fd.get(), places.attributes, &attributes)) ||
        (places.finderFlags != 0 && !read_word(fd.get(), places.finderFlags, &finderFlags))) {
        return false;
    }
    flags->locked = (attributes & kAttributeLocked) != 0;
    flags->hidden = (attributes & kAttributeHidden) != 0 || (finderFlags & kFinderInvisible) != 0;
    return true;
}

// A file that is read-only already stays so: an upgrade never unlocks.
mode_t upgraded_mode(mode_t mode, bool locked) {
    constexpr mode_t kWriteBits = 0222;
    mode &= 07777;
    if ((mode & kWriteBits) == 0) {
        return mode;
    }
    return locked ? mode & ~kWriteBits : mode | kWriteBits;
}

// Best effort: a failure leaves its code, and the file as far as it got.
void apply_flags(const char *path, const FileFlags &flags) {
    VLIBCStat status;
    if (VLIBCFileStat(path, VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &status) != 0) {
        set_error(Error::stat, VEXO_HERE);
        return;
    }
    if (::chmod(path, upgraded_mode(status.st.st_mode, flags.locked)) != 0) {
        set_error(Error::file_operation, VEXO_HERE);
        return;
    }
    const bool hidden = (status.attributes & VLIBC_ATTR_HIDDEN) != 0 || flags.hidden;
    if (command_attribute(path, hidden ? AttributeCommand::set_hidden : AttributeCommand::clear_hidden) < 0) {
        set_error(Error::file_operation, VEXO_HERE);
    }
}

int upgrade_resource(const char *path) {
    PathBuffer from;
    PathBuffer to;
    if (VEXOEAPath(kOlderLayout, path, kOldResource, from.fill(), PathBuffer::kUsable, kStreamCompanion) < 0 ||
        VEXOEAPath(kCurrentLayout, path, kResourceStream, to.fill(), PathBuffer::kUsable, kStreamCompanion) < 0) {
        return -1;
    }
    if (exists(to.c_str())) {
        return kAlreadyCurrent;
    }
    if (!exists(from.c_str())) {
        return kNothingOld;
    }
    if (::rename(from.c_str(), to.c_str()) != 0) {
        return fail(Error::rename_ea, VEXO_HERE);
    }
    FileFlags flags;
    if (read_flags(to.c_str(), &flags)) {
        apply_flags(path, flags);
    }
    from.adopt();
    from.shorten(from.view().rfind('/'));
    return remove_old_directory(from.c_str(), kConverted);
}

// ---- Any other stream ----

int upgrade_stream(const char *path, const char *streamName) {
    PathBuffer from;
    if (VEXOEAPath(kOlderLayout, path, streamName, from.fill(), PathBuffer::kUsable, kStreamCompanion) < 0) {
        return -1;
    }
    from.adopt();
    PathBuffer to(from.view());
    const size_t colon = to.view().rfind(':');
    if (colon != std::string_view::npos && colon > to.view().rfind('/')) {
        to.shorten(colon);
        to.append("@").append(from.c_str() + colon + 1);
    }
    if (exists(to.c_str())) {
        return kAlreadyCurrent;
    }
    if (!exists(from.c_str())) {
        return kNothingOld;
    }
    return VLIBCExec("/bin/mv", from.c_str(), to.c_str(), nullptr) == -1 ? -1 : kConverted;
}

} // namespace

int VEXOEAUpgrade(const char *path, const char *streamName) {
    if (path == nullptr || streamName == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    const std::string_view name = streamName;
    if (name == kEaStream) {
        return AttributeUpgrade(path).run();
    }
    if (name == kResourceStream) {
        return upgrade_resource(path);
    }
    return name.starts_with(kOldPrefix) ? upgrade_stream(path, streamName) : fail(Error::invalid_argument, VEXO_HERE);
}
