#include "tools/engine/compare/plain_stores.h"

#include "tools/engine/store/apple_double.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/walk/directory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr char kBesideStream[] = "@VexoEAStream", kBesideResource[] = "@VexoResource";
constexpr size_t kMostInStore = size_t{64} << 10; // bytes of a file of a store
constexpr size_t kMostOfStore = 100'000;          // entries of one, so that it takes no memory
constexpr size_t kMostInName = 128;               // no volume of the kernel's own shortens that for a companion

// What the library reads without a complaint: the two entries that it writes itself, and everything that they and the
// attributes point to inside.
bool is_sound(std::string_view bytes, bool stream) {
    if (bytes.empty()) {
        return true; // as one that was just made
    }
    const AppleDouble header = parse_apple_double(bytes, bytes.size());
    constexpr uint32_t fork = 2, finderInfo = 9, plainLength = 32;
    const auto of = [&](uint32_t id) { return std::ranges::find(header.entries, id, &AppleDouble::Entry::id); };
    return header.bad.empty() && (!stream || (header.entries.size() == 2 && of(fork) != header.entries.end() &&
                                              of(finderInfo) != header.entries.end() &&
                                              (header.hasAttributeBlock || of(finderInfo)->length == plainLength)));
}

// Whoever writes a stream holds its lock meanwhile.
bool is_being_written(int fd) {
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    return ::fcntl(fd, F_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

} // namespace

// Room for one file, and what it holds.
class PlainStores::Bytes {
  public:
    // False: it is longer, or not to be read.
    bool read(int directory, const std::string &name, bool locked) {
        constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOATIME | O_CLOEXEC;
        const Descriptor file(::openat(directory, name.c_str(), flags));
        if (file.get() < 0 || (locked && is_being_written(file.get()))) {
            return false;
        }
        const ssize_t got = ::read(file.get(), m_room.data(), m_room.size());
        m_size = got < 0 ? 0 : static_cast<size_t>(got);
        return got >= 0 && m_size < m_room.size();
    }
    std::string_view text() const { return {m_room.data(), m_size}; }

  private:
    std::array<char, kMostInStore + 1> m_room;
    size_t m_size = 0;
};

PlainStores::PlainStores() = default;
PlainStores::~PlainStores() = default;

// Where letter cases are one a file's store may have another name than it.
bool PlainStores::Store::open(int parent) {
    directory = Descriptor(::openat(parent, kStoreName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (directory.get() < 0) {
        return errno == ENOENT;
    }
    unsigned int settings = 0;
    if (::ioctl(directory.get(), FS_IOC_GETFLAGS, &settings) == 0 && (settings & FS_CASEFOLD_FL) != 0) {
        return false;
    }
    bool all = true;
    const bool read = each_entry(directory.get(), [&](const char *name, unsigned char type) {
        all = types.size() < kMostOfStore;
        if (all) {
            types.emplace(name, type);
        }
    });
    return read && all;
}

unsigned char PlainStores::Store::type_of(const std::string &name) const {
    const auto found = types.find(name);
    return found == types.end() ? static_cast<unsigned char>(DT_UNKNOWN) : found->second;
}

bool PlainStores::open(int source, int copy) {
    m_one = std::make_unique_for_overwrite<Bytes>();
    m_other = std::make_unique_for_overwrite<Bytes>();
    return m_source.open(source) && m_copy.open(copy);
}

bool PlainStores::is_same(const std::string &name, bool stream) const {
    const unsigned char one = m_source.type_of(name), other = m_copy.type_of(name);
    if (one == DT_UNKNOWN && other == DT_UNKNOWN) {
        return true;
    }
    return one == DT_REG && other == DT_REG && m_one->read(m_source.directory.get(), name, stream) &&
           m_other->read(m_copy.directory.get(), name, false) && m_one->text() == m_other->text() &&
           is_sound(m_one->text(), stream);
}

bool PlainStores::are_same(const std::string &name) const {
    if (m_one == nullptr) {
        return true;
    }
    return name.size() <= kMostInName && !m_source.types.contains(name) && !m_copy.types.contains(name) &&
           is_same(name + kBesideStream, true) && is_same(name + kBesideResource, false);
}

} // namespace engine
