#include "copy/engine/tree_copy_listing.h"

#include "ea/ea.h"

#include <cerrno>
#include <cstring>
#include <string_view>

namespace vexo {

bool is_never_carried(const char *entry) {
    const std::string_view name = entry;
    return name == "." || name == ".." || VEXOEAIsHiddenDir(entry) != 0 || name.starts_with("._");
}

std::optional<Listing::Entry> Listing::next() {
    if (m_setAside) {
        if (m_restRead == m_restLength) {
            errno = m_end;
            return std::nullopt;
        }
        const auto *record = reinterpret_cast<const char *>(m_rest.data()) + m_restRead;
        const Entry entry{record + 1, static_cast<unsigned char>(*record)};
        m_restRead += 1 + std::strlen(entry.name) + 1;
        return entry;
    }
    for (;;) {
        errno = 0;
        const dirent *entry = m_directory.read();
        if (entry == nullptr) {
            return std::nullopt;
        }
        if (!is_never_carried(entry->d_name)) {
            return Entry{entry->d_name, entry->d_type};
        }
    }
}

bool Listing::holds_entries() {
    ::rewinddir(m_directory.get());
    errno = 0;
    while (const dirent *entry = m_directory.read()) {
        if (!is_never_carried(entry->d_name)) {
            return true;
        }
        errno = 0;
    }
    return errno != 0;
}

bool Listing::keep(const dirent &entry) {
    constexpr size_t kFirst = 1024;
    const size_t length = std::strlen(entry.d_name) + 1;
    const size_t needed = m_restLength + 1 + length;
    if (needed > m_rest.size() && !m_rest.resize(needed > kFirst / 2 ? 2 * needed : kFirst)) {
        return false;
    }
    uint8_t *const record = m_rest.data() + m_restLength;
    record[0] = entry.d_type;
    std::memcpy(record + 1, entry.d_name, length);
    m_restLength = needed;
    return true;
}

void Listing::set_aside() {
    if (m_setAside) {
        m_directory.close();
        return;
    }
    struct stat status;
    if (::fstat(fd(), &status) == 0) {
        m_identity = status;
    }
    for (;;) {
        errno = 0;
        const dirent *entry = m_directory.read();
        if (entry == nullptr) {
            m_end = errno;
            break;
        }
        if (!is_never_carried(entry->d_name) && !keep(*entry)) {
            m_end = ENOMEM;
            break;
        }
    }
    if (m_rest.size() > m_restLength) {
        (void)m_rest.resize(m_restLength); // larger than needed is no failure
    }
    m_setAside = true;
    m_directory.close();
}

bool Listing::take_up(Dir &&directory, bool inodesProve) {
    struct stat status;
    if (::fstat(::dirfd(directory.get()), &status) != 0) {
        return false;
    }
    if (inodesProve && (!m_identity || status.st_dev != m_identity->st_dev || status.st_ino != m_identity->st_ino)) {
        errno = ESTALE;
        return false;
    }
    m_directory = static_cast<Dir &&>(directory);
    return true;
}

} // namespace vexo
