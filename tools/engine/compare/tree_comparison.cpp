#include "tools/engine/compare/tree_comparison.h"

#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/compare/linked_names.h"
#include "tools/engine/compare/name_match.h"
#include "tools/engine/compare/shared_comparison.h"
#include "tools/engine/compare/side.h"
#include "tools/engine/losses/wording.h"
#include "tools/engine/naming/naming.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/report/problem.h"
#include "tools/engine/select/tree_selection.h"
#include "tools/engine/store/listing.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/stack_room.h"

#include "ea/ea.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <map>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace engine {
namespace {

Inode inode(const struct stat &found) {
    return {found.st_dev, found.st_ino};
}

// One of two directories that are walked through. A deep walk cannot hold them all: one that has let go finds the way
// back from a directory in it.
struct End {
    Descriptor directory{-1};
    struct stat status {};
    VolumeFacts facts = {};
    std::string path; // for people

    End(int parent, const std::string &name, std::string shown)
        : directory(open_directory(parent, name)), path(std::move(shown)) {
        if (directory.get() < 0 || ::fstat(directory.get(), &status) != 0) {
            throw_errno("cannot be read");
        }
        facts = volume_facts(directory.get());
    }
    int fd() const { return directory.get(); }
    void let_go() { directory = Descriptor(-1); }
    bool hold_again(const End &child) {
        if (fd() < 0) {
            struct stat found {};
            Descriptor above = open_directory(child.fd(), "..");
            if (above.get() < 0 || ::fstat(above.get(), &found) != 0 || inode(found) != inode(status)) {
                return false;
            }
            directory = std::move(above);
        }
        return true;
    }
};

// What a path of the command line names: a directory and a name in it.
struct Top {
    Descriptor parent{-1};
    std::string path, name;

    explicit Top(const std::string &given) : path(given) {
        if (given.ends_with('/') || base_name(given) == "..") {
            const std::unique_ptr<char, decltype(&std::free)> real(::realpath(given.c_str(), nullptr), &std::free);
            if (real == nullptr) {
                const int number = errno;
                throw Failure(number == ENOTDIR ? problem_of_look(given, number).reason : std::strerror(number), 0,
                              number);
            }
            path = real.get();
        }
        if (path == "/") {
            throw Failure("the root has no name in a directory; give directories in it");
        }
        name = base_name(path);
        parent = Descriptor(::open(parent_of(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        struct stat found {};
        if (parent.get() < 0 || ::fstatat(parent.get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
            throw_errno();
        }
    }
};

EntryKind kind_of_item(const Listing::Item &item) {
    return entry_kind(static_cast<mode_t>(DTTOIF(item.type)));
}

Top top_of(const std::string &given) {
    try {
        return Top(given);
    } catch (const Failure &failure) {
        throw Failure(fmt::format("{}: {}", displayed(given), failure.what()), failure.code(), failure.number());
    }
}

class TreeComparison {
  public:
    // `crew`: of the worker that this is; what it is given outlives this, and so does the observer.
    TreeComparison(const TreeComparisonOptions &options, ComparisonObserver &observer, Crew *crew = nullptr)
        : m_options(options), m_observer(observer), m_crew(crew), m_selection(options.selection) {}

    void run(const Top &first, const Top &second) {
        m_top = first.path;
        m_selection.begin(m_top, m_options.named);
        struct stat found {};
        m_device =
            ::fstatat(first.parent.get(), first.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 ? found.st_dev : 0;
        tops(first.parent.get(), first.name, first.path, second.parent.get(), second.name, second.path);
        if (m_options.names == nullptr) {
            m_links.finish(tell_apart());
        }
    }

    // What another one has given away, or a whole request.
    void run(Job given) {
        const ComparisonJob job = ComparisonJob::from(given.text);
        m_top = job.top;
        m_device = job.device;
        m_selection.begin(m_top, m_options.named);
        if (given.files.size() != 2) {
            throw Failure("the directories have not arrived");
        }
        const int one = given.files[0].get(), other = given.files[1].get();
        if (job.kind == ComparisonJob::Kind::tops) {
            const auto &[name, otherName] = job.names.front();
            tops(one, name, joined(job.path, name), other, otherName, joined(job.otherPath, otherName));
            return;
        }
        Listing none, noneThere;
        NameMatch names(other, -1, noneThere, none);
        Level level{End(one, ".", job.path), End(other, ".", job.otherPath), std::move(none), std::move(noneThere),
                    std::move(names)};
        m_levels.push_back(&level);
        if (job.kind == ComparisonJob::Kind::directories) {
            level.inner = job.names;
        } else {
            for (const auto &[name, otherName] : job.names) {
                entry_at_both(level, name, otherName);
            }
        }
        inner_directories(level);
        m_levels.pop_back();
    }

  private:
    struct Level {
        End one, other;
        Listing listing, there;
        NameMatch names;
        PairedNames paired = {};
        std::vector<std::pair<std::string, std::string>> inner = {}; // directories of both, under their two names
        size_t next = 0;                                             // of those
        size_t item = 0;                                             // of the listing
        Crew::Group given = 0;                                       // what others do
        bool mayGive = true;
    };

    void tops(int one, const std::string &name, const std::string &path, int other, const std::string &otherName,
              const std::string &otherPath) {
        const Side first{one, name, volume_facts(one)}, second{other, otherName, volume_facts(other)};
        if (takes(one, name, path) && pair(first, path, second, otherPath)) {
            directories(one, name, path, other, otherName, otherPath);
        }
    }

    // ---- Several processes ----

    // Directories that are still to be gone into, of the highest level that has some, where most is below them; else
    // entries of a large one. The last ones, since they are the next to last to be compared.
    void share() {
        for (Level *level : m_levels) {
            const bool lowest = level == m_levels.back();
            const size_t left = level->inner.size() - level->next;
            if (level->mayGive && level->one.fd() >= 0 && level->other.fd() >= 0 &&
                (give_directories(*level, lowest ? left / 2 : (left + 1) / 2) || (lowest && give_entries(*level)))) {
                return;
            }
        }
    }

    bool give(Level &level, ComparisonJob::Kind kind, std::vector<std::pair<std::string, std::string>> names) {
        const ComparisonJob job{kind, level.one.path, level.other.path, std::move(names), m_top, m_device};
        level.mayGive = m_crew->give(level.given, job.text(), {level.one.fd(), level.other.fd()});
        return level.mayGive;
    }

    bool give_directories(Level &level, size_t most) {
        size_t from = level.inner.size(), bytes = 0;
        while (from > level.inner.size() - most && bytes < kMostOfNames) {
            bytes += ComparisonJob::size_of(level.inner[--from]);
        }
        const auto first = level.inner.begin() + static_cast<std::ptrdiff_t>(from);
        if (from == level.inner.size() || !give(level, ComparisonJob::Kind::directories, {first, level.inner.end()})) {
            return false;
        }
        level.inner.erase(first, level.inner.end());
        return true;
    }

    // Those that are at both by the very name and have nothing beside them: the others are for who knows the listings.
    bool give_entries(Level &level) {
        std::vector<Listing::Item> &items = level.listing.items;
        constexpr size_t few = 64;
        const size_t left = items.size() - level.item;
        if (left < few) {
            return false;
        }
        std::vector<std::pair<std::string, std::string>> names;
        size_t from = items.size(), bytes = 0;
        std::vector<Listing::Item> rest;
        while (from > items.size() - left / 2 && bytes < kMostOfNames) {
            Listing::Item &item = items[--from];
            if (item.parts.empty() && !is_private_name(item.name) && level.names.is_itself(item.name)) {
                bytes += ComparisonJob::size_of(names.emplace_back(item.name, item.name));
            } else {
                rest.push_back(std::move(item));
            }
        }
        items.resize(from);
        if (!names.empty() && !give(level, ComparisonJob::Kind::entries, names)) {
            for (auto &[name, there] : names) {
                rest.push_back({name, DT_UNKNOWN});
            }
            names.clear();
        }
        std::ranges::move(rest, std::back_inserter(items));
        level.mayGive = level.mayGive && !names.empty();
        return !names.empty();
    }

    void collect(Level &level) {
        if (level.given != 0) {
            (void)m_crew->collect(std::exchange(level.given, 0), m_depth < kMostDepth);
        }
    }

    // `path`: of the first, also for an entry of the second. What cannot be looked at is told elsewhere.
    bool takes(int directory, const std::string &name, const std::string &path) {
        struct stat found {};
        return m_selection.takes_everything() || ::fstatat(directory, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0 ||
               m_selection.takes(path, fmt::format("/proc/self/fd/{}/{}", directory, name), found);
    }

    void lose(const std::string &first, const std::string &second, LossClass cls, std::string detail) {
        m_observer.loss(first, second, {cls, std::move(detail)});
    }

    // Two entries. True: they are two directories, which may be walked through.
    bool pair(const Side &one, const std::string &path, const Side &other, const std::string &otherPath) {
        CompareOptions options{.data = m_options.data,
                               .times = m_options.times,
                               .costs = true,
                               .stopped = [this] { return m_observer.stopped(); },
                               .progress = [this](int64_t bytes) { m_observer.progress(bytes); }};
        if (m_crew != nullptr) {
            begin_pair(*m_crew, path, otherPath);
        }
        bool same = false, directories = false;
        mode_t mode = 0;
        int64_t bytes = 0;
        const auto look = [&](const struct stat &first, const struct stat &second) {
            mode = first.st_mode;
            bytes = S_ISREG(mode) ? first.st_size : 0;
            same = inode(first) == inode(second);
            directories = !same && S_ISDIR(mode) && S_ISDIR(second.st_mode);
            options.data = options.data && !same && !is_known_link(path, first, otherPath, second);
            return !same;
        };
        const std::vector<Loss> losses = compare_entries(one, other, options, look);
        if (same) {
            m_observer.same(path, otherPath);
            return false;
        }
        for (const Loss &loss : losses) {
            // How many names a file has elsewhere is nobody's loss: what counts is told by is_known_link().
            if (loss.cls != LossClass::hard_link) {
                m_observer.loss(path, otherPath, loss);
            }
        }
        m_observer.compared(path, entry_kind(mode), bytes);
        return directories;
    }

    LinkedNames::Tell tell_apart() {
        return [this](const std::string &first, const std::string &second, const Loss &loss) {
            m_observer.loss(first, second, loss);
        };
    }

    // Whether the two were compared under other names. A file that was one and is two is told, by whoever knows all of
    // its names.
    bool is_known_link(const std::string &path, const struct stat &first, const std::string &otherPath,
                       const struct stat &second) {
        if (first.st_nlink < 2 || !S_ISREG(first.st_mode) || !S_ISREG(second.st_mode)) {
            return false;
        }
        const LinkedName name{inode(first), inode(second), first.st_nlink, second.st_nlink,
                              path,         otherPath,     first.st_size};
        LinkedNames &names = m_options.names == nullptr ? m_links : *m_options.names;
        return m_crew == nullptr ? names.meet(name, tell_apart()) : ask_for_links(*m_crew, name);
    }

    // Directories under their names in two that are open. What cannot be opened is told.
    void directories(int parent, const std::string &name, const std::string &path, int otherParent,
                     const std::string &otherName, const std::string &otherPath, Level *above = nullptr) {
        std::unique_ptr<Level> level;
        if (!has_stack_room()) {
            lose(path, otherPath, LossClass::unreadable, problem_of_depth().reason);
            return;
        }
        try {
            End one(parent, name, path), other(otherParent, otherName, otherPath);
            std::string unread, unreadThere;
            Listing listing = list_directory(one.fd(), one.facts.store, &unread);
            Listing there = list_directory(other.fd(), other.facts.store, &unreadThere);
            for (const std::string &why : {unread, unreadThere}) { // the entries are compared all the same
                if (!why.empty()) {
                    lose(path, otherPath, LossClass::unreadable, why);
                }
            }
            PairedNames paired = pair_names(one, listing, other, there);
            NameMatch names(other.fd(), other.facts.type, there, listing, paired.wanted());
            level = std::make_unique<Level>(Level{std::move(one), std::move(other), std::move(listing),
                                                  std::move(there), std::move(names), std::move(paired)});
        } catch (const Failure &failure) {
            lose(path, otherPath, LossClass::unreadable, failure.what());
            return;
        }
        constexpr int mostHeld = 6;
        if (above != nullptr && ++m_depth > mostHeld) {
            above->one.let_go();
            above->other.let_go();
        }
        m_levels.push_back(level.get());
        struct stat top {};
        if (::fstat(level->one.fd(), &top) == 0 && m_selection.enters(top.st_dev, m_device)) {
            entries(*level);
        }
        inner_directories(*level);
        m_levels.pop_back();
        if (above != nullptr) {
            --m_depth;
            if (level->one.fd() < 0 || !above->one.hold_again(level->one) || !above->other.hold_again(level->other)) {
                above->one.let_go();
                lose(path, otherPath, LossClass::unreadable,
                     "a directory was moved away meanwhile; what is left beside it was not compared");
            }
        }
    }

    // The lists are no entries.
    PairedNames pair_names(const End &one, Listing &listing, const End &other, Listing &there) {
        if (!m_options.reversibleNames) {
            return {};
        }
        const auto names_of = [](const Listing &all) {
            std::vector<std::string> names;
            std::ranges::transform(all.items, std::back_inserter(names), &Listing::Item::name);
            return names;
        };
        PairedNames paired(one.fd(), names_of(listing), other.fd(), names_of(there));
        const auto is_list = [](const Listing::Item &item) { return item.name == kNameList; };
        std::erase_if(listing.items, is_list);
        std::erase_if(there.items, is_list);
        for (const Loss &loss : paired.losses()) {
            m_observer.loss(one.path, other.path, loss);
        }
        return paired;
    }

    void inner_directories(Level &level) {
        while (level.next < level.inner.size() && !m_observer.stopped() && level.one.fd() >= 0) {
            if (m_crew != nullptr && m_crew->is_work_wanted()) {
                share(); // which leaves at least one
            }
            const auto [name, there] = std::move(level.inner[level.next++]);
            directories(level.one.fd(), name, joined(level.one.path, name), level.other.fd(), there,
                        joined(level.other.path, there), &level);
        }
        collect(level);
    }

    void entries(Level &level) {
        for (const Listing::Part &part : level.listing.strangers) {
            stranger(level, part);
        }
        while (level.item < level.listing.items.size()) {
            if (m_observer.stopped()) {
                return;
            }
            if (m_crew != nullptr && m_crew->is_work_wanted()) {
                share();
            }
            const Listing::Item item = std::move(level.listing.items[level.item++]);
            entry(level, item);
        }
        extras(level);
        // Nothing of it is needed for what is below, and it may be long.
        level.listing = {};
        level.item = 0;
        level.there = {};
        level.names.forget();
        level.paired = {};
    }

    void entry_at_both(Level &level, const std::string &name, const std::string &there) {
        const std::string path = joined(level.one.path, name);
        const Side one{level.one.fd(), name, level.one.facts}, other{level.other.fd(), there, level.other.facts};
        if (!m_observer.stopped() && takes(one.directory, name, path) &&
            pair(one, path, other, joined(level.other.path, there))) {
            level.inner.emplace_back(name, there);
        }
    }

    void entry(Level &level, const Listing::Item &item) {
        const std::string path = joined(level.one.path, item.name);
        if (is_left_over(item.name)) {
            m_observer.left_over(path); // nothing that is not somewhere else as well
            return;
        }
        const NameMatch::Found found = level.names.find(item.name);
        const std::string otherPath = joined(level.other.path, found.name);
        if (!takes(level.one.fd(), item.name, path)) {
            return;
        }
        if (found.tooLong) {
            lose(path, otherPath, LossClass::name_too_long, too_long_text(item.name.size()));
            m_observer.compared(path, kind_of_item(item), 0);
            return;
        }
        if (found.clash) {
            struct stat one {
            }, other{};
            (void)::fstatat(level.one.fd(), item.name.c_str(), &one, AT_SYMLINK_NOFOLLOW);
            (void)::fstatat(level.other.fd(), found.name.c_str(), &other, AT_SYMLINK_NOFOLLOW);
            const LossClass cls = class_of_clash(one.st_mode, other.st_mode);
            const bool held = cls != LossClass::symbolic_link || volume_traits(level.other.facts.type).links;
            lose(path, otherPath, cls,
                 held ? fmt::format("{} has become the same entry", displayed(joined(level.one.path, *found.clash)))
                      : kLinkNotHeld);
            m_observer.compared(path, kind_of_item(item), 0);
            return;
        }
        const Side one{level.one.fd(), item.name, level.one.facts},
            other{level.other.fd(), found.name, level.other.facts};
        if (is_too_large(one, other, path, otherPath)) {
            return;
        }
        const bool walk = pair(one, path, other, otherPath);
        if (found.there && !level.paired.are_one(item.name, found.name)) {
            lose(path, otherPath, LossClass::name_changed, fmt::format("is {} at the second", displayed(found.name)));
        }
        if (walk) {
            level.inner.emplace_back(item.name, found.name);
        }
    }

    // A file that is not there since the volume takes none of its size.
    bool is_too_large(const Side &one, const Side &other, const std::string &path, const std::string &otherPath) {
        struct stat found {
        }, there{};
        const uint64_t limit = other.volume.largestFile;
        if (limit == 0 || ::fstatat(one.directory, one.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(found.st_mode) || static_cast<uint64_t>(found.st_size) < limit ||
            ::fstatat(other.directory, other.name.c_str(), &there, AT_SYMLINK_NOFOLLOW) == 0) {
            return false;
        }
        lose(path, otherPath, LossClass::file_too_large, too_large_text(static_cast<uint64_t>(found.st_size), limit));
        m_observer.compared(path, EntryKind::file, 0);
        return true;
    }

    // Whether entries that are no user's are the same in bytes and names.
    bool plain(int parent, const std::string &name, int otherParent, const std::string &other) {
        const Side one{parent, name, volume_facts(parent)}, two{otherParent, other, volume_facts(otherParent)};
        bool alike = true;
        for (const Loss &loss : compare_entries(one, two, {.data = m_options.data, .times = false})) {
            const bool content = loss.cls == LossClass::data || loss.cls == LossClass::unreadable ||
                                 loss.cls == LossClass::symbolic_link || loss.cls == LossClass::special_file;
            alike = alike && !content;
        }
        const Descriptor from = open_directory(parent, name), to = open_directory(otherParent, other);
        if (!alike || from.get() < 0 || to.get() < 0) {
            return alike;
        }
        for (const std::string &inner : names_in(from.get()).value_or(std::vector<std::string>())) {
            const bool there = ::faccessat(to.get(), inner.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
            alike = there && plain(from.get(), inner, to.get(), inner) && alike;
        }
        return alike;
    }

    // What belongs to the system or to no entry. A copy leaves it where it is.
    void stranger(const Level &level, const Listing::Part &part) {
        const int place =
            part.inStore && level.there.store == nullptr ? -1 : level.there.place_of(part, level.other.fd());
        const std::string path = joined(level.one.path, part_text(part));
        const std::string otherPath = joined(level.other.path, part_text(part));
        const int from = level.listing.place_of(part, level.one.fd());
        const bool differs = place < 0 || !plain(from, part.name, place, part.name);
        if (differs && part.inStore) { // told of the directory, as a copy does
            lose(level.one.path, level.other.path, LossClass::not_carried,
                 fmt::format("{} belongs to no entry", displayed(part_text(part))));
        } else if (differs) {
            lose(path, otherPath, LossClass::not_carried,
                 part.name.starts_with("._") ? "has a name that is kept for metadata, and stays where it is"
                 : is_system_name(part.name) ? "belongs to the system, and stays where it is"
                                             : "has a name that is kept for metadata, and stays where it is");
        }
    }

    // What belongs to the appliance's system is no user's, wherever it comes from.
    void extras(const Level &level) {
        const auto meant = [&](const std::string &name) {
            return takes(level.other.fd(), name, joined(level.one.path, name));
        };
        for (const Listing::Item &item : level.there.items) {
            const std::string path = joined(level.other.path, item.name);
            if (is_left_over(item.name)) {
                m_observer.left_over(path);
            } else if (!level.names.is_taken(item.name) && meant(item.name)) {
                m_observer.extra(path, kind_of_item(item));
            }
        }
        for (const Listing::Part &part : level.there.strangers) {
            const bool both = std::ranges::find(level.listing.strangers, part) != level.listing.strangers.end();
            if (!both && m_selection.takes_everything() && (part.inStore || !is_system_name(part.name))) {
                m_observer.extra(joined(level.other.path, part_text(part)), EntryKind::other);
            }
        }
    }

    static bool is_system_name(const std::string &name) {
        return VEXOEAIsHiddenDir(name.c_str()) == 1 && ::strcasecmp(name.c_str(), "@eaDir") != 0;
    }

    static constexpr size_t kMostOfNames = Channel::kMostBytes / 2;
    static constexpr int kMostDepth = 100; // with other jobs upon it: the stack has an end

    const TreeComparisonOptions &m_options;
    ComparisonObserver &m_observer;
    Crew *m_crew;
    TreeSelection m_selection;
    std::string m_top = {};
    dev_t m_device = 0; // of the first
    LinkedNames m_links = {};
    std::vector<Level *> m_levels = {}; // the way down
    int m_depth = 0;
};

bool is_directory(const Top &top) {
    struct stat found {};
    return ::fstatat(top.parent.get(), top.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(found.st_mode);
}

// The whole request as a job; a copy of each directory goes with it.
Job job_of(const Top &first, const Top &second) {
    ComparisonJob job{.path = parent_of(first.path), .otherPath = parent_of(second.path)};
    job.names.emplace_back(first.name, second.name);
    job.top = first.path;
    struct stat found {};
    job.device = ::fstatat(first.parent.get(), first.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 ? found.st_dev : 0;
    Job whole{job.text(), {}};
    for (const Top *top : {&first, &second}) {
        whole.files.emplace_back(::openat(top->parent.get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return whole;
}

} // namespace

void compare_trees(const std::string &first, const std::string &second, const TreeComparisonOptions &options,
                   ComparisonObserver &observer, const Hands &hands) {
    const Top one = top_of(first), other = top_of(second);
    const auto compare = [&options](Job job, ComparisonObserver &telling, Crew &crew) {
        TreeComparison(options, telling, &crew).run(std::move(job));
    };
    const bool several = hands.number > 1 && is_directory(one) && is_directory(other);
    if (!several || !share_comparison(job_of(one, other), hands, observer, options.names, compare)) {
        TreeComparison(options, observer).run(one, other);
    }
}

} // namespace engine
