// Whether an entry still is what it was: for whoever copied it and is about to remove it.
#pragma once

#include <optional>
#include <string>
#include <sys/stat.h>

namespace engine {

// What an entry was at one moment: device, inode, type, size, modification time, change time. The change time, which
// nobody can set back, is one of the kernel's coarse clock: where a change of the same length follows another within a
// tick of it (milliseconds), before and after the look, it does not show.
class Witness {
  public:
    explicit Witness(const struct stat &seen) : m_seen(seen) {}

    // Of what is open (O_PATH will do), or of a name in an open directory, where a symbolic link is the link. Nothing,
    // with errno, when it cannot be looked at.
    static std::optional<Witness> of(int fd);
    static std::optional<Witness> of(int directory, const std::string &name);

    // Whether what is open, or what stands under the name, is the same entry as it was then. An entry that is gone or
    // cannot be looked at is not; errno then says why, and is 0 for one that was changed or replaced.
    bool unchanged(int fd) const;
    bool unchanged(int directory, const std::string &name) const;

    // The same by a stat that the caller has.
    bool is(const struct stat &now) const;

    const struct stat &seen() const { return m_seen; }

  private:
    struct stat m_seen;
};

} // namespace engine
