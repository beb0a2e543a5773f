#include "tools/engine/naming/naming.h"

#include "ea/ea.h"
#include "tools/engine/naming/fat_form.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/directory_lock.h"
#include "tools/engine/walk/letter_case.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace engine {
namespace {

constexpr int kMostNumbers = 9999; // of names that become one

// Whatever else a directory lists goes with an entry, or stays where it is.
bool may_be_entry(const std::string &name) {
    return name != kNameList && !name.starts_with("._") && VEXOEAIsHiddenDir(name.c_str()) != 1 && !is_left_over(name);
}

Loss name_is_taken(const std::string &name, const std::string &original) {
    return {LossClass::name_changed, fmt::format("{} was {} before, which is another entry's name by now",
                                                 displayed(name), displayed(original))};
}

// Of an entry that nobody carries under what it is called only there.
Problem problem_of_list(const Failure &failure) {
    return {fmt::format("nobody can tell what it was called before: {}", failure.what()), 0, true};
}

using Names = std::unordered_map<std::string, std::string>;

// What the list has for them, but for those that an entry has by itself: that one does not make way.
Names originals_in(const NameList &list, const std::vector<std::string> &names, std::vector<Loss> &losses) {
    Names originals;
    if (list.empty()) {
        return originals;
    }
    const std::unordered_set<std::string> all(names.begin(), names.end());
    for (const std::string &name : names) {
        const std::string *const original = list.original_of(name);
        if (original == nullptr || *original == name) {
            continue;
        }
        if (all.contains(*original)) {
            losses.push_back(name_is_taken(name, *original));
        } else {
            originals.emplace(name, *original);
        }
    }
    return originals;
}

bool has_list(const std::vector<std::string> &names) {
    return std::ranges::find(names, kNameList) != names.end();
}

} // namespace

// What a call finds out, and takes, on its way.
struct Naming::Assignment {
    Names made = {};                                         // by what the entries are called
    std::vector<std::pair<std::string, std::string>> rows{}; // new ones, of a name that is made and what it was
    Taken taken = {};
    std::unordered_set<std::string> there = {}, foldedThere = {}; // what stands there

    void look(int directory) {
        const auto names = directory < 0 ? std::optional(std::vector<std::string>()) : names_in(directory);
        if (!names) {
            throw_errno("the directory cannot be read");
        }
        for (const std::string &name : *names) {
            there.insert(name);
            foldedThere.insert(folded(name));
        }
    }
};

const Naming::Known &Naming::list_in(int directory, Known &last) {
    struct stat found {};
    const bool none =
        directory < 0 || (::fstatat(directory, kNameList, &found, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT);
    Known known;
    if (!none) {
        known.version = {found.st_dev, found.st_ino, found.st_size, found.st_mtim.tv_sec, found.st_mtim.tv_nsec};
        if (known.version == last.version && found.st_ino != 0) {
            return last;
        }
        last = {}; // whatever comes of it
        known.list = NameList(directory);
        for (const auto &[made, original] : known.list.originals()) {
            known.taken.emplace(folded(made), original);
        }
    }
    last = std::move(known);
    return last;
}

// Each name has what it had before; then those have their own that can; then come those that become something else.
void Naming::assign(const NamingPlace &to, const Known &known, const std::vector<std::string> &originals,
                    Assignment &assignment) {
    const Given &before = m_given[to.path];
    const auto is_free = [&](const std::string &key) {
        return !assignment.taken.contains(key) && !before.taken.contains(key) && !known.taken.contains(key);
    };
    // What stands there without a row is called what it is called, and gives way to nobody.
    const auto take = [&](const std::string &made, const std::string &original) {
        const std::string key = folded(made);
        const bool stands =
            assignment.foldedThere.contains(key) && !(made == original && assignment.there.contains(made));
        if (is_name_list(made) || stands || !is_free(key)) {
            return false;
        }
        assignment.taken.emplace(key, original);
        assignment.made.emplace(original, made);
        if (made != original) {
            assignment.rows.emplace_back(made, original);
        }
        return true;
    };
    std::vector<std::string> own, others, numbered;
    for (const std::string &original : originals) {
        const auto given = before.made.find(original);
        const std::string *const made = given != before.made.end() ? &given->second : known.list.made_of(original);
        if (made != nullptr) {
            assignment.made.emplace(original, *made);
        } else {
            (fat_form(original) == original ? own : others).push_back(original);
        }
    }
    if (!own.empty() || !others.empty()) {
        assignment.look(to.directory);
    }
    std::ranges::copy_if(own, std::back_inserter(numbered),
                         [&](const std::string &original) { return !take(original, original); });
    std::ranges::copy_if(others, std::back_inserter(numbered),
                         [&](const std::string &original) { return !take(fat_form(original), original); });
    for (const std::string &original : numbered) {
        int number = 1;
        while (number <= kMostNumbers && !take(fat_form(original, number), original)) {
            ++number;
        }
    }
}

Naming::Assignment Naming::assigned(const NamingPlace &to, const std::vector<std::string> &originals) {
    Assignment assignment;
    assign(to, list_in(to.directory, m_to), originals, assignment);
    return assignment;
}

// A rehearsal finds out what the list would be.
NameList Naming::write_rows(const NamingPlace &to, const std::vector<std::string> &originals, Assignment &assignment) {
    const DirectoryLock lock(m_rehearsal ? -1 : to.directory);
    if (lock.is_refused()) {
        throw Failure("another command is at work in the directory, and did not end in time");
    }
    m_to = {}; // somebody else may have written one until the lock was ours
    assignment = assigned(to, originals);
    NameList list = m_to.list;
    for (const auto &[made, original] : assignment.rows) {
        list.add(made, original);
    }
    if (!m_rehearsal) {
        list.write(to.directory, m_sync);
        m_to = {};
    }
    return list;
}

// Under a name that nobody could take back nothing is brought: what has a row already, or needs none, has its name.
void Naming::refuse(const NamingPlace &to, const std::vector<std::string> &names,
                    const std::vector<std::string> &originals, GivenNames &given) {
    Assignment assignment;
    try {
        assign(to, m_to, originals, assignment);
    } catch (const Failure &) {
        assignment = {}; // it cannot even be listed
    }
    for (const auto &[made, original] : assignment.rows) {
        assignment.made.erase(original);
    }
    for (const std::string &name : names) {
        const auto made = assignment.made.find(given.of(name));
        if (made != assignment.made.end()) {
            given.others.insert_or_assign(name, made->second);
        } else if (may_be_entry(name)) {
            given.nameless.insert(name);
        }
    }
}

void Naming::give(const NamingPlace &to, GivenNames &given, const std::vector<std::string> &names) {
    if (!volume_traits(to.type).fatNames) {
        return;
    }
    std::vector<std::string> originals;
    for (const std::string &name : names) {
        if (may_be_entry(name)) {
            originals.push_back(given.of(name));
        }
    }
    std::ranges::sort(originals);
    try {
        Assignment assignment = assigned(to, originals);
        if (!assignment.rows.empty()) {
            given.listBytes = write_rows(to, originals, assignment).bytes();
        }
        for (const std::string &name : names) {
            const std::string original = given.of(name);
            if (const auto made = assignment.made.find(original); made != assignment.made.end()) {
                given.others.insert_or_assign(name, made->second);
            }
        }
        Given &all = m_given[to.path];
        all.taken.merge(assignment.taken);
        all.made.merge(assignment.made);
    } catch (const Failure &failure) {
        given.unusable = Problem{fmt::format("its name cannot be kept there: {}", failure.what())};
        refuse(to, names, originals, given);
    }
    std::erase_if(given.others, [](const auto &one) { return one.first == one.second; });
}

GivenNames Naming::of_all(int from, const std::vector<std::string> &names, const NamingPlace &to) {
    GivenNames given;
    if (!m_wanted) {
        return given;
    }
    if (has_list(names)) {
        given.listed = true;
        try {
            given.others = originals_in(NameList(from), names, given.losses);
        } catch (const Failure &failure) {
            given.unusable = problem_of_list(failure);
            std::ranges::copy_if(names, std::inserter(given.nameless, given.nameless.end()), may_be_entry);
            return given;
        }
    }
    m_to = {};
    give(to, given, names);
    return given;
}

GivenName Naming::of_one(int from, const std::string &name, const NamingPlace &to, const std::string &meant) {
    if (!m_wanted || name == kNameList || meant == kNameList) {
        return {meant};
    }
    GivenNames given;
    if (meant != name) {
        given.others.emplace(name, meant);
    } else {
        try {
            const std::string *const original = list_in(from, m_from).list.original_of(name);
            const bool taken = original != nullptr && *original != name &&
                               ::faccessat(from, original->c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
            if (taken) {
                given.losses.push_back(name_is_taken(name, *original));
            } else if (original != nullptr) {
                given.others.emplace(name, *original);
            }
        } catch (const Failure &failure) {
            return {meant, {}, problem_of_list(failure)};
        }
    }
    give(to, given, {name});
    return {given.of(name), given.losses, given.problem_of(name)};
}

PairedNames::PairedNames(int one, const std::vector<std::string> &names, int other,
                         const std::vector<std::string> &there) {
    if (has_list(names)) {
        m_one = originals_in(NameList(one), names, m_losses);
    }
    if (has_list(there)) {
        std::vector<Loss> ofOthers;
        m_other = originals_in(NameList(other), there, ofOthers);
    }
    if (m_one.empty() && m_other.empty()) {
        return;
    }
    const std::unordered_set<std::string> listed(there.begin(), there.end());
    Names madeOf;
    for (const auto &[made, before] : m_other) {
        madeOf.emplace(before, made);
    }
    for (const std::string &name : names) {
        const std::string &before = original(m_one, name);
        const auto made = madeOf.find(before);
        if (made != madeOf.end()) {
            m_wanted.emplace(name, made->second);
        } else if (before != name && (listed.contains(before) || !listed.contains(name))) {
            m_wanted.emplace(name, before);
        }
    }
}

bool drop_dead_names(int directory, int type, bool sync) {
    struct stat found {};
    if (!volume_traits(type).fatNames || ::fstatat(directory, kNameList, &found, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    const DirectoryLock lock(directory);
    const auto names = names_in(directory);
    if (lock.is_refused() || !names) {
        return false;
    }
    const std::unordered_set<std::string> there(names->begin(), names->end());
    NameList list;
    try {
        list = NameList(directory);
    } catch (const Failure &) {
        return false; // somebody may still want to read it
    }
    NameList alive = list;
    for (const auto &[made, original] : list.originals()) {
        if (!there.contains(made)) {
            alive.remove(made);
        }
    }
    if (alive.originals().size() == list.originals().size()) {
        return false;
    }
    alive.write(directory, sync);
    return true;
}

} // namespace engine
