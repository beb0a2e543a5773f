// A file or directory that the user has named, held: its directory is opened once, by the path as it was given, and so
// is what stands under the name. From then on nobody who exchanges a directory on the way, or the entry itself, leads
// what is done with it elsewhere.
#pragma once

#include "tools/engine/walk/descriptor.h"

#include <string>
#include <sys/stat.h>

namespace engine {

class HeldEntry {
  public:
    // What has to stand under the name. A symbolic link is refused but where the name is all that matters: what it
    // leads to is not what was named, and somebody else may have put it there.
    enum class Needs { entry, entry_or_nothing, name };
    // `path` is an absolute one. Throws Failure.
    explicit HeldEntry(const std::string &path, Needs needs = Needs::entry);

    const std::string &given() const { return m_given; }
    int directory() const { return m_directory.get(); } // for paths only (O_PATH)
    const std::string &name() const { return m_name; }
    bool is_there() const { return m_file.get() >= 0; }
    const struct stat &status() const { return m_status; } // of what is there, when it was opened

    // For calls that take a path: by its directory, for what lies beside it; and of the very thing that was found under
    // the name, which such calls have to follow a link for. The second where it is there.
    std::string path() const;
    std::string itself() const;
    // A path that was made of path(), as the user knows it.
    std::string shown(const std::string &place) const;

    // Throws Failure where something else stands under the name by now.
    void check_still() const;

  private:
    std::string m_given, m_name;
    Descriptor m_directory, m_file;
    struct stat m_status {};
};

} // namespace engine
