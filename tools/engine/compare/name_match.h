// Which entry of a directory is the one that a name of another volume has become.
#pragma once

#include "tools/engine/store/listing.h"
#include "tools/engine/volume/volume_traits.h"

#include <algorithm>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace engine {

class NameMatch {
  public:
    // `directory`, on a volume of the type `type`, is open and stays the caller's; `there` is what lies in it. Entries
    // that are there under the very name of one of `names` are for that one; else for the one that the volume gives
    // that name to, letter by letter. `wanted`: under which other names some of `names` are looked for.
    using Wanted = std::unordered_map<std::string, std::string>;
    NameMatch(int directory, int type, const Listing &there, const Listing &names, Wanted wanted = {});

    struct Found {
        std::string name;                      // as the directory lists it; where it is not there, as it would be
        bool there = false, tooLong = false;   // too long for the volume
        std::optional<std::string> clash = {}; // the name that has become this entry before
    };
    // Takes the entry for `name`.
    Found find(const std::string &name);
    bool is_taken(const std::string &listed) const { return m_takenBy.contains(listed); }
    // Whether the entry of that name is there, and for that name.
    bool is_itself(const std::string &name) const {
        const auto taken = m_takenBy.find(name);
        return taken != m_takenBy.end() && taken->second == name;
    }
    void forget() { m_wanted.clear(), m_listed.clear(), m_takenBy.clear(), m_takers.clear(); }

  private:
    std::optional<std::string> unseen_taker(const std::string &name);
    std::string listed_name(const std::string &wanted) const;
    const std::string &asked(const std::string &name) const {
        const auto found = m_wanted.find(name);
        return found == m_wanted.end() ? name : found->second;
    }

    int m_directory;
    int m_type;
    Wanted m_wanted;
    std::vector<std::string> m_listed; // sorted
    std::unordered_map<std::string, std::string> m_takenBy;
    std::unordered_map<std::string, std::string> m_takers; // by the names of those in one letter case
};

// What a volume of that type makes of a name.
std::string name_on(int type, const std::string &name);

// Who has a name that others would be given by the volume comes before those. `stays`: whether the volume lists a name
// as it is.
template <typename Entries, typename NameOf, typename Stays>
void own_names_first(int type, Entries &entries, const NameOf &name_of, const Stays &stays) {
    const bool fat = volume_traits(type).fatNames;
    std::stable_partition(entries.begin(), entries.end(), [&](const auto &one) {
        return (!fat || name_on(type, name_of(one)) == name_of(one)) && stays(name_of(one));
    });
}

} // namespace engine
