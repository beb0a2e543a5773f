// The way down into a tree, directory by directory: a few of them stay open, however deep it is, and the others are
// found again by what they are. Nobody who exchanges one of them on the way leads such a walk out of the tree.
#pragma once

#include "tools/engine/walk/descriptor.h"

#include <cstddef>
#include <string>
#include <sys/types.h>
#include <vector>

namespace engine {

class DirectoryChain {
  public:
    // Begins anew with an open directory (O_PATH will do), which stays open. False, with errno: it cannot be looked at.
    bool start(Descriptor top);
    // A directory in the lowest one, open and no link. False, with errno.
    bool descend(Descriptor directory, const std::string &name);
    void ascend() { m_links.pop_back(); }

    size_t size() const { return m_links.size(); }
    // -1: of one that was let go. The lowest one is always open, and the one above it once hold_above() says so.
    int fd(size_t at) const { return m_links[at].directory.get(); }
    // Below the first one, which is open, those before this are not.
    size_t first_held() const;
    int lowest() const { return fd(size() - 1); }
    dev_t device(size_t at) const { return m_links[at].device; }
    // "/proc/self/fd/5/name": an entry of the lowest one, for calls that take a path.
    std::string path_of(const std::string &name) const;

    // False: the one above the lowest is not where it was, since somebody has moved one of those on the way.
    bool hold_above();

  private:
    struct Link {
        Descriptor directory;
        std::string name; // in the one above
        dev_t device;
        ino_t inode;
    };
    bool add(Descriptor directory, const std::string &name);
    bool hold_from_top(size_t at);

    std::vector<Link> m_links;
};

} // namespace engine
