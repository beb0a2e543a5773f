// The directory beside a destination in which a relocation to it works: its own, closed to everybody else, and found
// again by whoever relocates there after a stop.
#pragma once

#include "tools/engine/walk/descriptor.h"

#include <optional>
#include <string>
#include <sys/stat.h>

namespace engine {

class PrivatePlace {
  public:
    // Opens the directory that holds the destination, and the place where there is one. Throws InvalidRequest where the
    // destination cannot be one, and for a place that somebody else has made.
    explicit PrivatePlace(const std::string &destination);

    int parent() const { return m_parent.get(); }
    int directory() const { return m_directory.get(); }
    bool exists() const { return m_directory.get() >= 0; }
    // The destination's name in its parent.
    const std::string &base() const { return m_base; }
    // For people, and for the volume's kind: an override of that goes by the text of a path.
    const std::string &path() const { return m_path; }
    // What the library is given, where the kind is the same: nobody can put another directory in between.
    std::string inside(const std::string &name) const;
    std::string destination() const;

    // What stands under a name in the place, or at the destination.
    std::optional<struct stat> look_inside(const std::string &name) const { return look_at(directory(), name); }
    std::optional<struct stat> look_at_destination() const { return look_at(parent(), m_base); }

    // Makes the place where there is none, and holds its lock as long as this lives. False: another process has it.
    // Throws Failure.
    bool enter();
    // The place itself, when nothing but the lock is in it. False, with errno.
    bool leave();
    // What was done in it, and to the destination's name, outlives a reboot from here on.
    void sync() const;

  private:
    static std::optional<struct stat> look_at(int directory, const std::string &name);
    bool open_there();
    bool is_ours(const struct stat &found) const;

    Descriptor m_parent{-1}, m_directory{-1}, m_lock{-1};
    std::string m_base, m_name, m_path, m_parentPath;
    bool m_byText = false;
};

} // namespace engine
