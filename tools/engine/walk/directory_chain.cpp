#include "tools/engine/walk/directory_chain.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

namespace engine {
namespace {

constexpr size_t kMostHeld = 6; // below the first

} // namespace

bool DirectoryChain::start(Descriptor top) {
    m_links.clear();
    return add(std::move(top), {});
}

bool DirectoryChain::descend(Descriptor directory, const std::string &name) {
    if (!add(std::move(directory), name)) {
        return false;
    }
    if (m_links.size() > kMostHeld + 1) {
        m_links[m_links.size() - 1 - kMostHeld].directory = Descriptor(-1);
    }
    return true;
}

bool DirectoryChain::add(Descriptor directory, const std::string &name) {
    struct stat found {};
    if (directory.get() < 0 || ::fstat(directory.get(), &found) != 0) {
        return false;
    }
    m_links.push_back({std::move(directory), name, found.st_dev, found.st_ino});
    return true;
}

size_t DirectoryChain::first_held() const {
    return m_links.size() > kMostHeld ? m_links.size() - kMostHeld : 0;
}

std::string DirectoryChain::path_of(const std::string &name) const {
    return fmt::format("/proc/self/fd/{}/{}", lowest(), name);
}

bool DirectoryChain::hold_above() {
    const size_t at = m_links.size() - 2;
    Link &link = m_links[at];
    if (link.directory.get() >= 0) {
        return true;
    }
    Descriptor above(::openat(lowest(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat found {};
    if (above.get() >= 0 && ::fstat(above.get(), &found) == 0 && found.st_dev == link.device &&
        found.st_ino == link.inode) {
        link.directory = std::move(above);
        return true;
    }
    return hold_from_top(at);
}

// The way down from the nearest one that is open, where each has to be the one that it was.
bool DirectoryChain::hold_from_top(size_t at) {
    size_t from = at;
    while (m_links[from].directory.get() < 0) {
        --from;
    }
    Descriptor current(-1);
    for (size_t next = from + 1; next <= at; ++next) {
        const Link &link = m_links[next];
        Descriptor opened =
            open_directory(current.get() < 0 ? m_links[from].directory.get() : current.get(), link.name);
        struct stat found {};
        if (opened.get() < 0 || ::fstat(opened.get(), &found) != 0 || found.st_dev != link.device ||
            found.st_ino != link.inode) {
            return false;
        }
        current = std::move(opened);
    }
    m_links[at].directory = std::move(current);
    return true;
}

} // namespace engine
