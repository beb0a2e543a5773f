// A directory that stays the one it is, whatever its owner does to the path meanwhile: entries in it go by its
// descriptor.
#pragma once

#include "tools/engine/compare/side.h"
#include "tools/engine/walk/descriptor.h"

#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace engine {

class HeldDirectory {
  public:
    HeldDirectory() = default;
    // By its path, with links followed: where the user has pointed to. errno where it cannot be opened.
    explicit HeldDirectory(const std::string &path);
    // A directory in another, which is no link.
    HeldDirectory(const HeldDirectory &parent, const std::string &name);
    // One in another, of the same volume, that was opened in it for reading. It lies beside no "@eaDir" of its own.
    HeldDirectory(const HeldDirectory &parent, const std::string &name, Descriptor opened, const struct stat &found);
    // One that another process has opened.
    HeldDirectory(std::string path, Descriptor opened);

    bool is_open() const { return m_descriptor.get() >= 0; }
    int fd() const { return m_descriptor.get(); } // for paths only (O_PATH)
    const std::string &path() const { return m_path; }
    dev_t device() const { return m_device; }
    ino_t inode() const { return m_inode; }
    int type() const { return m_type; } // of its volume, the platform's code
    bool keeps_mac() const;
    const VolumeFacts &facts() const { return m_facts; }

    // An entry for a comparison. `type`: of its volume, where another one is mounted on the entry. Without an "@eaDir"
    // as far as it was known when the directory was opened; side_now() looks again.
    Side side(const std::string &name, int type = -1) const;
    Side side_now(const std::string &name, int type = -1) const;

    // For calls that take a path: of an entry, where a link is for the call to follow or not; and of the directory.
    std::string below(const std::string &name) const;
    std::string itself() const;

    // What stands under the name, a link being a link; nothing, with errno, where there is none.
    std::optional<struct stat> look(const std::string &name) const;
    std::optional<struct stat> look_through(const std::string &name) const;

    bool is(const std::string &path) const { return is_open() && m_path == path; }

    // A deep walk cannot hold them all: one that has let go finds the way back from a directory that was opened in it,
    // by "..", and knows whether it is the same. False: it is not, since somebody has moved one of the two.
    void let_go() const;
    bool hold_again(const HeldDirectory &child) const;

  private:
    void ask();

    std::string m_path = {};
    mutable Descriptor m_descriptor = Descriptor(-1);
    dev_t m_device = 0;
    ino_t m_inode = 0;
    int m_type = -1;
    VolumeFacts m_facts = {};
};

} // namespace engine
