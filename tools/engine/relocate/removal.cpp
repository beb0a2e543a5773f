#include "tools/engine/relocate/removal.h"

#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/relocate/bottom_up.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace engine {
namespace {

Problem problem_of_removal(int number) {
    return number == ENOTEMPTY || number == EEXIST ? Problem{"something was put into it meanwhile"}
                                                   : problem_of_errno(number);
}

// A file system may say once of what is there that it is not; whoever believes that leaves it behind, and says it is
// gone.
bool is_gone(int directory, const std::string &name) {
    struct stat found {};
    return ::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
}

// Whether an entry that could not be removed, by errno, is no longer there.
bool removed_by_others(int directory, const std::string &name) {
    const int number = errno;
    const bool gone = number == ENOENT && is_gone(directory, name);
    errno = number;
    return gone;
}

} // namespace

bool SourceRemoval::run(const TreeTop &tree) {
    m_tree = tree;
    m_path = tree.path;
    m_kind = store_kind(tree.type);
    const Entered entered = enter(tree.parent, tree.name, m_copy.parent, m_copy.name);
    if (entered != Entered::yes) {
        return entered == Entered::gone;
    }
    while (!m_levels.empty()) {
        m_path.resize(m_levels.back().pathLength);
        if (m_levels.back().next < m_levels.back().listing.items.size() && !m_observer.stopped()) {
            remove_next();
        } else if (!leave()) {
            return false;
        }
    }
    return m_gone;
}

SourceRemoval::Entered SourceRemoval::enter(int parent, const std::string &name, int copyParent,
                                            const std::string &there) {
    Descriptor directory = open_directory(parent, name);
    if (directory.get() < 0) {
        return removed_by_others(parent, name) ? Entered::gone : stay(problem_of_errno(errno));
    }
    const auto proven = m_proof.holds(directory.get());
    if (!proven) {
        return stay({"was put there meanwhile, and stays"});
    }
    Descriptor copy = open_directory(copyParent, there);
    // Its times are those of what was put into it or taken from it.
    const bool changed = !*proven && !compare_entries({parent, name, volume_facts(parent)},
                                                      {copyParent, there, volume_facts(copyParent, m_copy.type)},
                                                      {.times = false, .begun = true})
                                          .empty();
    try {
        Listing listing = list_directory(directory.get(), m_kind);
        const bool first = m_levels.empty();
        if (!(first ? m_from.start(std::move(directory)) : m_from.descend(std::move(directory), name))) {
            throw_errno("cannot be looked at");
        }
        if (copy.get() >= 0 && m_to.size() + 1 == m_from.size()) {
            (void)(first ? m_to.start(std::move(copy)) : m_to.descend(std::move(copy), name));
        }
        const bool hasStore = listing.store != nullptr;
        m_levels.push_back({name, std::move(listing), hasStore, changed, m_path.size()});
        return Entered::yes;
    } catch (const Failure &failure) {
        return stay({failure.what()});
    }
}

bool SourceRemoval::finish(int parent, const std::string &name, const std::string &path) {
    if (::unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0 && !removed_by_others(parent, name)) {
        return left(path, problem_of_removal(errno));
    }
    ++m_removed;
    return true;
}

void SourceRemoval::hold_store(Level &level) const {
    if (level.hasStore && level.listing.store == nullptr) {
        level.listing.store = std::make_unique<Descriptor>(open_directory(m_from.lowest(), "@eaDir"));
    }
}

// What other services keep for it goes first and its store last: a run that is stopped between the two leaves only what
// is known to have had an entry.
void SourceRemoval::remove_next() {
    const size_t at = m_levels.size() - 1;
    Level &level = m_levels[at];
    const Listing::Item item = level.listing.items[level.next++];
    hold_store(level);
    for (const Listing::Part &part : item.parts) {
        if (part.inStore && part.name == item.name &&
            !remove_plain(level.listing.store->get(), part.name, joined(joined(m_path, "@eaDir"), part.name))) {
            level.complete = false;
            return;
        }
    }
    m_path = joined(m_path, item.name);
    if (item.type != DT_DIR) {
        level.complete = unlink(m_from.lowest(), item.name, m_path) && remove_parts(level, item) && level.complete;
        return;
    }
    level.listing.store.reset();
    const Entered entered = enter(m_from.lowest(), item.name, copy(), item.name);
    if (entered == Entered::stays || (entered == Entered::gone && !remove_parts(m_levels[at], item))) {
        m_levels[at].complete = false;
    }
}

// Of an entry that is gone.
bool SourceRemoval::remove_parts(Level &level, const Listing::Item &item) {
    bool complete = true;
    hold_store(level);
    for (const Listing::Part &part : item.parts) {
        if (!(part.inStore && part.name == item.name)) {
            complete = unlink(level.listing.place_of(part, m_from.lowest()), part.name,
                              joined(parent_of(m_path), part_text(part))) &&
                       complete;
        }
    }
    return complete;
}

// The directory that was emptied, as far as that could be done. False: nothing more can be.
bool SourceRemoval::leave() {
    Level level = std::move(m_levels.back());
    const bool top = m_levels.size() == 1;
    bool complete = level.complete && level.next == level.listing.items.size();
    if (level.next == level.listing.items.size()) {
        hold_store(level);
        for (const Listing::Part &part : level.listing.strangers) {
            complete =
                unlink(level.listing.place_of(part, m_from.lowest()), part.name, joined(m_path, part_text(part))) &&
                complete;
        }
        complete = complete && (!level.hasStore || empty_store(m_from.lowest(), level.listing));
        level.listing.store.reset();
    }
    if (!top && !m_from.hold_above()) {
        return left(m_path, {"somebody has moved it meanwhile, and it stays"});
    }
    const int parent = top ? m_tree.parent : m_from.fd(m_from.size() - 2);
    const bool gone = level.changed ? left(m_path, {"was changed meanwhile, and stays"})
                                    : complete && finish(parent, level.name, m_path);
    m_levels.pop_back();
    if (top) {
        m_gone = gone;
        return true;
    }
    leave_copy();
    m_from.ascend();
    Level &above = m_levels.back();
    above.complete = gone && remove_parts(above, above.listing.items[above.next - 1]) && above.complete;
    return true;
}

void SourceRemoval::leave_copy() {
    if (m_to.size() == m_from.size()) {
        m_copyLost = m_copyLost || !m_to.hold_above();
        m_to.ascend();
    }
}

bool SourceRemoval::empty_store(int directory, const Listing &listing) {
    const std::string store = joined(m_path, "@eaDir");
    return (!listing.cover || unlink(listing.store->get(), ".cover", joined(store, ".cover"))) &&
           finish(directory, "@eaDir", store);
}

bool SourceRemoval::remove_plain(int parent, const std::string &name, const std::string &path) {
    return remove_bottom_up(
        parent, name, path,
        {.enter = [](int, const std::string &, const struct stat &, const std::string &) { return true; },
         .unlink = [this](int in, const std::string &entry, const std::string &at) { return unlink(in, entry, at); },
         .finish = [this](int in, const std::string &entry, const std::string &at) { return finish(in, entry, at); },
         .left = m_told,
         .stopped = [] { return false; }});
}

bool SourceRemoval::unlink(int parent, const std::string &name, const std::string &path) {
    const Descriptor entry(::openat(parent, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (entry.get() < 0) {
        return removed_by_others(parent, name) || left(path, problem_of_errno(errno));
    }
    const auto proven = m_proof.holds(entry.get());
    if (!proven || !*proven) {
        return left(path, {proven ? "was changed meanwhile, and stays" : "was put there meanwhile, and stays"});
    }
    if (::unlinkat(parent, name.c_str(), 0) != 0 && !removed_by_others(parent, name)) {
        return left(path, problem_of_errno(errno));
    }
    m_proof.renew(entry.get());
    ++m_removed;
    return true;
}

bool remove_private(int parent, const std::string &name, const std::string &path, const Observer *observer,
                    const NotRemoved &told) {
    struct stat holder {};
    const dev_t device = ::fstat(parent, &holder) == 0 ? holder.st_dev : 0;
    const auto removed = [&](int in, const std::string &entry, const std::string &at, int flags) {
        const bool gone = ::unlinkat(in, entry.c_str(), flags) == 0 || (flags == 0 && errno == ENOENT);
        if (!gone) {
            told(at, problem_of_errno(errno));
        }
        return gone;
    };
    return remove_bottom_up(
        parent, name, path,
        {.enter =
             [&](int in, const std::string &entry, const struct stat &found, const std::string &at) {
                 if (found.st_dev != device) {
                     told(at, {"another volume is mounted there"});
                     return false;
                 }
                 if ((found.st_mode & S_IRWXU) != S_IRWXU && ::geteuid() != 0) {
                     (void)::fchmodat(in, entry.c_str(), S_IRWXU, 0); // nobody else can put a link there
                 }
                 return true;
             },
         .unlink = [&](int in, const std::string &entry, const std::string &at) { return removed(in, entry, at, 0); },
         .finish = [&](int in, const std::string &entry,
                       const std::string &at) { return removed(in, entry, at, AT_REMOVEDIR); },
         .left = told,
         .stopped = [observer] { return observer != nullptr && observer->stopped(); }});
}

} // namespace engine
