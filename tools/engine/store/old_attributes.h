// The attributes of the old layout: a small file for each, in the file's directory in "@eaDir".
#pragma once

#include "tools/engine/walk/descriptor.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

class OldAttributes {
  public:
    // Opens the directory of `path`, without following a link on the way from that file's directory. Throws Failure
    // where it is there and cannot be read.
    explicit OldAttributes(const std::string &path);

    // The names of everything in it; none where there is no such directory.
    const std::vector<std::string> &names() const { return m_names; }
    // Whether such an entry is an attribute: a regular file, and not what other services keep in the same directory.
    // Throws Failure where that cannot be known.
    bool is_attribute(const std::string &name) const;
    bool any() const;

    // The directory, which a stopped run may have left. Throws Failure for one that holds nothing and cannot go.
    void remove_if_empty() const;

    // What came of moving them into the attribute stream, which is made where it is missing. One that is there already
    // is left as it is: a stopped run brought it, or somebody has set it since.
    struct Moved {
        bool all = true;        // nothing stayed
        std::string other = {}; // one that stays because the stream has it with another value
    };
    // The files go when the stream holds what is in them. Throws Failure; no attribute is
    // lost then either.
    Moved move_to_stream() const;

  private:
    struct Found;
    void remove(const std::vector<Found> &found) const;

    std::string m_path, m_name;
    Descriptor m_stores; // "@eaDir"
    Descriptor m_directory;
    std::vector<std::string> m_names;
};

} // namespace engine
