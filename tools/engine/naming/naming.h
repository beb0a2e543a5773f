// Names that come back: what entries are called at a destination that does not take their names, and what they were
// called before where they come from such a one.
//
// Who asks for that gets each name back. On a volume of the FAT family a name becomes what that takes, and of several
// that become one all but the first get a number; a list in the directory (name_list.h) keeps what they were, and is
// there before the first of them. Elsewhere an entry gets the name that the list beside it has for it. A name keeps
// what it has become, so that a later run finds it again.
#pragma once

#include "tools/engine/losses/loss.h"
#include "tools/engine/naming/name_list.h"
#include "tools/engine/report/problem.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace engine {

// Of the entries of one directory.
struct GivenNames {
    std::unordered_map<std::string, std::string> others = {}; // at the destination, where they are not the same
    bool listed = false;                                      // the source has a list, which is no entry
    std::vector<Loss> losses = {};                            // of the directory: names that do not come back
    int64_t listBytes = 0;                                    // of the destination's list, where it gets a new one
    // Why one of the two lists cannot be used; and which entries would need it, so that they have no name there.
    std::optional<Problem> unusable = {};
    std::unordered_set<std::string> nameless = {};

    const std::string &of(const std::string &name) const {
        const auto found = others.find(name);
        return found == others.end() ? name : found->second;
    }
    // Why the entry has no name there; nothing: it has one.
    std::optional<Problem> problem_of(const std::string &name) const {
        return nameless.contains(name) ? unusable : std::nullopt;
    }
};

// Of one entry.
struct GivenName {
    std::string name;
    std::vector<Loss> losses = {};       // of it
    std::optional<Problem> problem = {}; // why it has none there
};

// The directory that entries go to.
struct NamingPlace {
    int directory = -1;    // open (O_PATH too); below 0: it is not there yet
    std::string path = {}; // for what this run has given there before
    int type = -1;         // of its volume
};

class Naming {
  public:
    // `rehearsal`: lists are not written. `sync`: they are on the disk before the entries are.
    Naming(bool wanted, bool rehearsal, bool sync) : m_wanted(wanted), m_rehearsal(rehearsal), m_sync(sync) {}

    bool wanted() const { return m_wanted; }
    // For all names that an open directory lists.
    GivenNames of_all(int from, const std::vector<std::string> &names, const NamingPlace &to);
    // For one of them, where `meant` is what it is to be called if that was not just taken from it.
    GivenName of_one(int from, const std::string &name, const NamingPlace &to, const std::string &meant);

  private:
    // What a directory of the destination has, by names in one letter case.
    using Taken = std::unordered_map<std::string, std::string>;
    struct Known {
        std::tuple<dev_t, ino_t, int64_t, int64_t, int64_t> version = {};
        NameList list = {};
        Taken taken = {};
    };
    struct Given { // by this run
        Taken taken = {};
        std::unordered_map<std::string, std::string> made = {};
    };
    struct Assignment;

    static const Known &list_in(int directory, Known &last);
    static void original_names(const NameList &list, const std::vector<std::string> &names, GivenNames &given);
    void give(const NamingPlace &to, GivenNames &given, const std::vector<std::string> &names);
    Assignment assigned(const NamingPlace &to, const std::vector<std::string> &originals);
    void assign(const NamingPlace &to, const Known &known, const std::vector<std::string> &originals,
                Assignment &assignment);
    NameList write_rows(const NamingPlace &to, const std::vector<std::string> &originals, Assignment &assignment);
    void refuse(const NamingPlace &to, const std::vector<std::string> &names, const std::vector<std::string> &originals,
                GivenNames &given);

    bool m_wanted, m_rehearsal, m_sync;
    Known m_from = {}, m_to = {};
    std::unordered_map<std::string, Given> m_given = {};
};

// Whose lists say that an entry of the one directory is one of the other: where neither of the two names is a change.
class PairedNames {
  public:
    PairedNames() = default;
    // Both open. Throws Failure where one of the lists cannot be read or believed.
    PairedNames(int one, const std::vector<std::string> &names, int other, const std::vector<std::string> &there);

    // Names of the first, with what they are to be looked for as in the second, where that is another.
    const std::unordered_map<std::string, std::string> &wanted() const { return m_wanted; }
    bool are_one(const std::string &name, const std::string &there) const {
        return original(m_one, name) == original(m_other, there);
    }
    const std::vector<Loss> &losses() const { return m_losses; } // of the directory

  private:
    using Names = std::unordered_map<std::string, std::string>;
    static const std::string &original(const Names &names, const std::string &name) {
        const auto found = names.find(name);
        return found == names.end() ? name : found->second;
    }

    Names m_one, m_other, m_wanted;
    std::vector<Loss> m_losses = {};
};

// Leaves in the list of an open directory, on a volume of that type, what stands there, and says whether it has
// changed. One that is not believed stays, and so does one that a copy does not write. Throws Failure.
bool drop_dead_names(int directory, int type, bool sync);

} // namespace engine
