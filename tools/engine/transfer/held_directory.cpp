#include "tools/engine/transfer/held_directory.h"

#include "platform/sdk.h"
#include "tools/engine/store/mac_attributes.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>

namespace engine {

HeldDirectory::HeldDirectory(const std::string &path)
    : m_path(path), m_descriptor(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    ask();
}

HeldDirectory::HeldDirectory(const HeldDirectory &parent, const std::string &name)
    : m_path(joined(parent.path(), name)),
      m_descriptor(::openat(parent.fd(), name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)) {
    ask();
}

HeldDirectory::HeldDirectory(std::string path, Descriptor opened)
    : m_path(std::move(path)), m_descriptor(std::move(opened)) {
    ask();
}

HeldDirectory::HeldDirectory(const HeldDirectory &parent, const std::string &name, Descriptor opened,
                             const struct stat &found)
    : m_path(joined(parent.path(), name)), m_descriptor(std::move(opened)), m_device(found.st_dev),
      m_inode(found.st_ino), m_type(parent.type()), m_facts(parent.facts()) {
    m_facts.noDirectory = true;
}

// The type by the path, since an override of types goes by the text of paths.
void HeldDirectory::ask() {
    struct stat found {};
    if (!is_open()) {
        return;
    }
    if (::fstat(fd(), &found) != 0) {
        const int number = errno;
        let_go();
        errno = number;
        return;
    }
    m_device = found.st_dev;
    m_inode = found.st_ino;
    m_type = VEXOGetFSType(m_path.c_str(), 0);
    if (m_type < 0) {
        m_type = VEXOGetFSType(itself().c_str(), 0); // the path may be too long
    }
    m_facts = volume_facts(fd(), m_type);
}

bool HeldDirectory::keeps_mac() const {
    return keeps_mac_attributes(m_facts.magic);
}

Side HeldDirectory::side(const std::string &name, int type) const {
    Side side{fd(), name, m_facts};
    if (type >= 0 && type != m_type) {
        side.volume = volume_facts(fd(), type);
    }
    if (name == ".") {
        side.volume.store = StoreKind::none; // of the root directory, beside which nothing lies
    }
    return side;
}

Side HeldDirectory::side_now(const std::string &name, int type) const {
    Side now = side(name, type);
    now.volume.noDirectory = now.volume.noDirectory && !look("@eaDir") && errno == ENOENT;
    return now;
}

void HeldDirectory::let_go() const {
    m_descriptor = Descriptor(-1);
}

bool HeldDirectory::hold_again(const HeldDirectory &child) const {
    if (is_open()) {
        return true;
    }
    Descriptor above(::openat(child.fd(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat found {};
    if (above.get() < 0 || ::fstat(above.get(), &found) != 0 || found.st_dev != m_device || found.st_ino != m_inode) {
        return false;
    }
    m_descriptor = std::move(above);
    return true;
}

std::string HeldDirectory::below(const std::string &name) const {
    return fmt::format("/proc/self/fd/{}/{}", fd(), name);
}

std::string HeldDirectory::itself() const {
    return fmt::format("/proc/self/fd/{}/.", fd());
}

std::optional<struct stat> HeldDirectory::look(const std::string &name) const {
    struct stat found {};
    return ::fstatat(fd(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 ? std::optional(found) : std::nullopt;
}

std::optional<struct stat> HeldDirectory::look_through(const std::string &name) const {
    struct stat found {};
    return ::fstatat(fd(), name.c_str(), &found, 0) == 0 ? std::optional(found) : std::nullopt;
}

} // namespace engine
