#include "tools/engine/mirror/surplus.h"

#include "ea/ea.h"
#include "tools/engine/compare/name_match.h"
#include "tools/engine/mirror/kept_surplus.h"
#include "tools/engine/naming/naming.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/select/tree_selection.h"
#include "tools/engine/store/listing.h"
#include "tools/engine/transfer/held_directory.h"
#include "tools/engine/transfer/special_file.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/mount_table.h"
#include "tools/engine/walk/mounts.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace engine {
namespace {

bool is_system_name(const std::string &name) {
    return VEXOEAIsHiddenDir(name.c_str()) == 1 && ::strcasecmp(name.c_str(), "@eaDir") != 0;
}

std::string below(const std::string &above, const std::string &name) {
    return above.empty() ? name : above + "/" + name;
}

const Problem &under_way() {
    static const Problem kUnderWay{"may be under way by another process; stays"};
    return kUnderWay;
}

class Walk : private RemovalObserver {
  public:
    Walk(const std::string &first, const std::string &second, Surplus kind, const SurplusOptions &options,
         SurplusObserver &observer)
        : m_kind(kind), m_options(options), m_observer(observer), m_selection(options.selection),
          m_kept(options.backup, second, options.rehearsal), m_removal({.recursive = true,
                                                                        .force = true,
                                                                        .mountsStay = true,
                                                                        .rehearsal = options.rehearsal,
                                                                        .kept = m_kept.wanted(),
                                                                        .keptBeside = m_kept.beside()},
                                                                       *this),
          m_look({.recursive = true, .force = true, .mountsStay = true, .rehearsal = true}, m_first) {
        m_selection.begin(first, false);
    }

    void run(const std::string &first, const std::string &second) {
        const HeldDirectory from(first);
        const int number = errno;
        const HeldDirectory to(second);
        if (!from.is_open() || !to.is_open()) {
            m_observer.unreadable(from.is_open() ? second : first, problem_of_errno(from.is_open() ? errno : number));
            return;
        }
        m_device = from.device();
        directory(from, to, "");
    }

  private:
    struct Level {
        const HeldDirectory &from, &to;
        const std::string &path; // of the first, as the selection sees it
        Listing listing = {}, there = {};
        std::vector<std::pair<std::string, std::string>> inner = {}; // directories of both, under their two names
    };

    // `path`: from the top of the first, without a slash at either end.
    void directory(const HeldDirectory &from, const HeldDirectory &to, const std::string &path) {
        struct stat before {};
        Level level{from, to, path};
        try {
            level.listing = list_directory(from.fd(), from.facts().store);
            level.there = list_directory(to.fd(), to.facts().store);
        } catch (const Failure &failure) {
            m_observer.unreadable(to.path(), {failure.what()});
            return;
        }
        if (::fstat(to.fd(), &before) != 0) { // whose times could not be put back
            m_observer.unreadable(to.path(), problem_of_errno(errno));
            return;
        }
        m_removedHere = false;
        entries(level);
        const bool changed = m_removedHere;
        // Nothing of it is needed for what is below, and it may be long.
        level.listing = {};
        level.there = {};
        for (const auto &[name, there] : level.inner) {
            if (m_observer.stopped() || !inner(level, name, there)) {
                break;
            }
        }
        if (changed && to.is_open() && !m_options.rehearsal) {
            const timespec times[] = {before.st_atim, before.st_mtim};
            if (::utimensat(AT_FDCWD, to.itself().c_str(), times, 0) != 0 && errno != EPERM) { // whoever owns it
                const Problem problem = problem_of_errno(errno);
                m_observer.entry(to.path(), S_IFDIR, Status::failed, &problem);
            }
        }
    }

    // False: one of the two was moved away meanwhile.
    bool inner(const Level &level, const std::string &name, const std::string &there) {
        const HeldDirectory from(level.from, name), to(level.to, there);
        if (!from.is_open() || !to.is_open()) {
            m_observer.unreadable(joined(level.to.path(), there), problem_of_errno(errno));
            return true;
        }
        if (m_kept.is_directory(to.path())) {
            return true;
        }
        const bool enters = m_selection.enters(from.device(), m_device);
        const bool outermost =
            m_mounted.empty() && is_mount(level.to.fd(), to.fd()) && !is_mount(level.from.fd(), from.fd());
        m_mounted = outermost ? to.path() : m_mounted;
        constexpr int mostHeld = 6;
        if (++m_depth > mostHeld) {
            level.from.let_go();
            level.to.let_go();
        }
        if (enters) {
            directory(from, to, below(level.path, name));
        }
        --m_depth;
        if (outermost) {
            m_mounted.clear();
            if (std::exchange(m_stays, false)) {
                const Problem kept{"another volume is mounted there, with what the source has not; that stays"};
                m_observer.entry(to.path(), S_IFDIR, Status::skipped, &kept);
            }
        }
        if (!level.from.hold_again(from) || !level.to.hold_again(to)) {
            m_observer.unreadable(level.to.path(), {"a directory was moved away meanwhile; not finished"});
            return false;
        }
        return true;
    }

    void entries(Level &level) {
        GivenNames given = given_names(level);
        if (given.unusable) {
            m_observer.unreadable(level.to.path(), *given.unusable);
            return;
        }
        if (m_options.leftOutToo) {
            std::erase_if(level.listing.items,
                          [&](const Listing::Item &item) { return !is_named(level, item.name, item.type); });
        }
        NameMatch names(level.to.fd(), level.to.type(), level.there, level.listing, std::move(given.others));
        for (const Listing::Item &item : level.listing.items) {
            if (m_observer.stopped()) {
                return;
            }
            const NameMatch::Found found = names.find(item.name);
            if (found.there && !found.clash && !is_left_over(item.name)) {
                both(level, names, item, found.name);
            }
        }
        if (m_kind == Surplus::extra) {
            extras(level, names);
            drop_names(level);
        }
    }

    // What a copy calls the entries of the first.
    GivenNames given_names(Level &level) const {
        if (!m_options.reversibleNames) {
            return {};
        }
        std::vector<std::string> names;
        std::ranges::transform(level.listing.items, std::back_inserter(names), &Listing::Item::name);
        Naming naming(true, true, false);
        GivenNames given = naming.of_all(level.from.fd(), names, {level.to.fd(), level.to.path(), level.to.type()});
        const auto is_list = [](const Listing::Item &item) { return item.name == kNameList; };
        std::erase_if(level.listing.items, is_list);
        std::erase_if(level.there.items, is_list);
        return given;
    }

    void drop_names(const Level &level) {
        if (!m_options.reversibleNames || m_options.rehearsal || m_observer.stopped() || !m_mounted.empty()) {
            return;
        }
        try {
            m_removedHere = drop_dead_names(level.to.fd(), level.to.type(), m_options.sync) || m_removedHere;
        } catch (const Failure &failure) {
            const Problem problem{failure.what()};
            m_observer.entry(joined(level.to.path(), kNameList), S_IFREG, Status::failed, &problem);
        }
    }

    bool is_named(const Level &level, const std::string &name, unsigned char type) const {
        return m_options.selection.takes_name(below(level.path, name), type == DT_DIR);
    }

    void both(Level &level, const NameMatch &names, const Listing::Item &item, const std::string &there) {
        if (!is_named(level, item.name, item.type)) {
            return;
        }
        const auto one = level.from.look(item.name), other = one ? level.to.look(there) : std::nullopt;
        if (!one || !other) {
            if (errno != ENOENT) {
                m_observer.unreadable(joined(level.to.path(), there), problem_of_errno(errno));
            }
            return;
        }
        if (S_ISDIR(one->st_mode) && S_ISDIR(other->st_mode)) {
            level.inner.emplace_back(item.name, there);
        } else if (m_kind == Surplus::obstacle && is_obstacle(one->st_mode, other->st_mode) &&
                   m_selection.takes(joined(level.from.path(), item.name), level.from.below(item.name), *one)) {
            obstacle(level, names, item.name, there, other->st_mode);
        }
    }

    bool is_obstacle(mode_t one, mode_t other) const {
        if (is_special(one) && !m_options.specials) {
            return false; // stays where it is, and whatever stands there stays, too
        }
        return S_ISDIR(one) != S_ISDIR(other) || (is_special(other) && !is_special(one));
    }

    void obstacle(const Level &level, const NameMatch &names, const std::string &name, const std::string &there,
                  mode_t mode) {
        errno = 0;
        if (const auto missing = unreadable_in(level.from.fd(), name, below(level.path, name)); !missing.empty()) {
            m_observer.unreadable(missing, problem_of_errno(errno));
        } else if (can_be_kept(level, names, there, mode)) {
            // With backups in it it would stay in the way.
            m_kept.beside() && S_ISDIR(mode) ? keep_whole(level, there) : remove(level, there);
        }
    }

    // A backup beside it does not take the place of what the first has under that name. False: it was told.
    bool can_be_kept(const Level &level, const NameMatch &names, const std::string &name, mode_t mode) {
        const std::string place = m_kept.beside() ? m_kept.name_beside(name) : "";
        const auto taken = m_kept.beside() ? level.to.look(place) : std::nullopt;
        const bool comes = m_kept.beside() && std::ranges::find(level.listing.items, place, &Listing::Item::name) !=
                                                  level.listing.items.end();
        const bool clash = comes || (taken && std::ranges::any_of(level.there.items, [&](const Listing::Item &item) {
                                         return ::strcasecmp(item.name.c_str(), place.c_str()) == 0 &&
                                                names.is_taken(item.name) && same(taken, level.to.look(item.name));
                                     }));
        if (clash) {
            const Problem problem{
                fmt::format("cannot be kept as a backup: the source has {}, too", displayed(m_kept.name_beside(name)))};
            m_observer.entry(joined(level.to.path(), name), mode, Status::failed, &problem);
        }
        return !clash;
    }

    void keep_whole(const Level &level, const std::string &name) {
        const std::string path = joined(level.to.path(), name);
        m_stays = m_stays || !m_mounted.empty();
        if (!m_mounted.empty() || m_observer.stopped()) {
            return;
        }
        if (!m_observer.may_remove(path, RemovalQuestion::entry, std::nullopt)) {
            m_observer.entry(path, S_IFDIR, Status::skipped, nullptr);
            return;
        }
        const auto problem = keep(level.to, path);
        m_removedHere = m_removedHere || !problem;
        m_observer.entry(path, S_IFDIR, problem ? Status::failed : Status::done, problem ? &*problem : nullptr);
    }

    // The path of something that cannot be opened; empty: all can.
    std::string unreadable_in(int directory, const std::string &name, const std::string &path) const {
        struct stat found {};
        if (::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
            return path;
        }
        if (!m_options.selection.takes_name(path, S_ISDIR(found.st_mode))) {
            return {};
        }
        if (S_ISREG(found.st_mode)) {
            const Descriptor file(
                ::openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
            return file.get() < 0 ? path : std::string();
        }
        if (!S_ISDIR(found.st_mode)) {
            return {};
        }
        const Descriptor inner = open_directory(directory, name);
        const auto entries = inner.get() < 0 ? std::nullopt : names_in(inner.get());
        if (!entries) {
            return path;
        }
        for (const std::string &entry : *entries) {
            if (auto missing = unreadable_in(inner.get(), entry, below(path, entry)); !missing.empty()) {
                return missing;
            }
        }
        return {};
    }

    void extras(const Level &level, const NameMatch &names) {
        for (const Listing::Item &item : level.there.items) {
            if (m_observer.stopped()) {
                return;
            }
            if (!names.is_taken(item.name) && !is_left_over(item.name) && !m_kept.is_backup(item.name) &&
                (m_options.leftOutToo || is_named(level, item.name, item.type)) &&
                (item.type == DT_DIR || can_be_kept(level, names, item.name, static_cast<mode_t>(DTTOIF(item.type))))) {
                remove(level, item.name);
            }
        }
        for (const Listing::Part &part : level.there.strangers) {
            const bool has = std::ranges::find(level.listing.strangers, part) != level.listing.strangers.end();
            if (!has && m_selection.takes_everything() && (part.inStore || !is_system_name(part.name))) {
                remove_stranger(level, part);
            }
        }
    }

    void remove(const Level &level, const std::string &name) {
        if (!m_mounted.empty()) {
            m_stays = true;
            return;
        }
        m_level = &level;
        if (m_kind == Surplus::extra || all_may_go(level, name)) {
            m_removal.run(level.to, name);
        }
        m_level = nullptr;
    }

    // Of a directory that stays all the same, since something in it does, nothing is to go.
    bool all_may_go(const Level &level, const std::string &name) {
        const auto found = level.to.look(name);
        if (!found || !S_ISDIR(found->st_mode)) {
            return true; // one step, which is done or not
        }
        const std::string path = joined(level.to.path(), name);
        m_first.begin(path);
        m_look.run(level.to, name);
        if (const auto mounted = m_first.may_go() ? mount_in(path, true) : std::nullopt) {
            const Problem why{"another volume is mounted there"};
            m_first.entry(*mounted, 0, Status::skipped, &why);
        }
        if (!m_first.may_go() && !m_observer.stopped()) {
            const Problem stays{"stays with all that is in it, since not all of that may go" + m_first.why()};
            m_observer.entry(path, S_IFDIR, Status::failed, &stays);
        }
        return m_first.may_go() && !m_observer.stopped();
    }

    // Kept for no entry, or under a name that is kept for metadata.
    void remove_stranger(const Level &level, const Listing::Part &part) {
        const std::string path = joined(level.to.path(), part_text(part));
        const int place = level.there.place_of(part, level.to.fd());
        struct stat found {};
        if (::fstatat(place, part.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT) {
                m_observer.unreadable(path, problem_of_errno(errno));
            }
            return;
        }
        if (!m_mounted.empty()) {
            m_stays = true;
            return;
        }
        if (may_be_under_way(place, part.name)) {
            m_observer.entry(path, found.st_mode, Status::skipped, &under_way());
        } else if (m_kept.wanted()) {
            const Problem stays{"belongs to no entry, so that no backup can be kept; stays"};
            m_observer.entry(path, found.st_mode, Status::skipped, &stays);
        } else if (!m_observer.may_remove(path, RemovalQuestion::entry, std::nullopt)) {
            m_observer.entry(path, found.st_mode, Status::skipped, nullptr);
        } else if (m_options.rehearsal || remove_left_over(place, part.name)) {
            m_removedHere = true;
            m_observer.entry(path, found.st_mode, Status::done, nullptr);
        } else {
            const Problem problem = problem_of_errno(errno);
            m_observer.entry(path, found.st_mode, Status::failed, &problem);
        }
    }

    // Of the removal.
    bool stopped() const override { return m_observer.stopped(); }
    void entry(const std::string &path, mode_t mode, Status status, const Problem *problem) override {
        if (status == Status::skipped && std::exchange(m_answered, false)) {
            return;
        }
        m_removedHere = m_removedHere || status == Status::done;
        m_observer.entry(path, mode, status, problem);
    }
    bool may_remove(const std::string &path, RemovalQuestion question) override {
        const Stays stays = what_keeps(path, question);
        m_answered = stays != Stays::no;
        if (stays == Stays::under_way) {
            m_observer.entry(path, question == RemovalQuestion::entry ? S_IFREG : S_IFDIR, Status::skipped,
                             &under_way());
        }
        return !m_answered && m_observer.may_remove(path, question, std::nullopt);
    }

    enum class Stays { no, left_out, under_way };
    Stays what_keeps(const std::string &path, RemovalQuestion question) const {
        const std::string top = m_level->to.path() == "/" ? "" : m_level->to.path();
        const std::string seen = below(m_level->path, path.substr(top.size() + 1));
        const bool named =
            m_options.leftOutToo || m_options.selection.takes_name(seen, question != RemovalQuestion::entry);
        if (!named || is_for_backups(path, question)) {
            return Stays::left_out;
        }
        if (!is_private_name(base_name(path))) {
            return Stays::no;
        }
        const Descriptor above(::open(parent_of(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        return may_be_under_way(above.get(), base_name(path)) ? Stays::under_way : Stays::no;
    }
    bool is_for_backups(const std::string &path, RemovalQuestion question) const {
        return m_kept.wanted() && (m_kept.is_backup(base_name(path)) || m_kept.is_directory(path) ||
                                   (question == RemovalQuestion::directory && m_kept.leads_to_directory(path)));
    }
    std::optional<Problem> keep(const HeldDirectory &directory, const std::string &path) override {
        auto problem = m_kept.keep(directory, path);
        if (!problem) {
            m_observer.kept(m_kept.place_of(path));
        }
        return problem;
    }

    // What a removal would do, without telling anybody: whether all of a directory may go.
    class FirstLook : public RemovalObserver {
      public:
        explicit FirstLook(Walk &walk) : m_walk(walk) {}
        void begin(const std::string &top) {
            m_top = top;
            m_why.clear();
            m_ahead = 0;
            m_whole = false;
            m_stays = false;
        }
        bool may_go() const { return m_whole && !m_stays; }
        const std::string &why() const { return m_why; } // empty, or from ": " on

        bool stopped() const override { return m_stays || m_walk.m_observer.stopped(); }
        void entry(const std::string &path, mode_t, Status status, const Problem *problem) override {
            if (status == Status::done) {
                ++m_ahead;
                m_whole = m_whole || path == m_top;
            } else if (!std::exchange(m_stays, true)) {
                m_why = ": " + displayed(path) + ": " + (problem == nullptr ? "is to stay" : problem->reason);
            }
        }
        bool may_remove(const std::string &path, RemovalQuestion question) override {
            const Stays stays = m_walk.what_keeps(path, question);
            if (stays != Stays::no) {
                static const Problem kLeftOut{"is left out"};
                entry(path, 0, Status::skipped, stays == Stays::left_out ? &kLeftOut : &under_way());
                return false;
            }
            return m_walk.m_observer.may_remove(path, question, m_ahead);
        }

      private:
        Walk &m_walk;
        std::string m_top = {}, m_why = {};
        int64_t m_ahead = 0; // so many would have gone before
        bool m_whole = false, m_stays = false;
    };

    Surplus m_kind;
    const SurplusOptions &m_options;
    SurplusObserver &m_observer;
    TreeSelection m_selection;
    KeptSurplus m_kept;
    FirstLook m_first{*this};
    TreeRemoval m_removal, m_look;
    const Level *m_level = nullptr; // in which an entry is being removed
    dev_t m_device = 0;             // of the first
    std::string m_mounted = {};     // the directory below which another volume is mounted; empty: it is not
    bool m_stays = false;           // something there would be removed
    bool m_answered = false;        // the answer was none of the observer's
    bool m_removedHere = false;
    int m_depth = 0;
};

} // namespace

void remove_surplus(const std::string &first, const std::string &second, Surplus kind, const SurplusOptions &options,
                    SurplusObserver &observer) {
    Walk(first, second, kind, options, observer).run(first, second);
}

std::optional<bool> holds_anything(const std::string &directory, const Selection &selection) {
    const HeldDirectory held(directory);
    const auto entries = held.is_open() ? entries_in(held.fd()) : std::nullopt;
    if (!entries) {
        return std::nullopt;
    }
    return std::ranges::any_of(*entries, [&](const Entry &entry) {
        return VEXOEAIsHiddenDir(entry.name.c_str()) != 1 && !entry.name.starts_with("._") &&
               !is_left_over(entry.name) && selection.takes_name(entry.name, entry.type == DT_DIR);
    });
}

} // namespace engine
