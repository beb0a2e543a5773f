#include "tools/engine/compare/tree_comparison.h"

#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/compare/name_match.h"
#include "tools/engine/compare/side.h"
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

using Inode = std::pair<dev_t, ino_t>;

Inode inode_of(const struct stat &found) {
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
            if (above.get() < 0 || ::fstat(above.get(), &found) != 0 || inode_of(found) != inode_of(status)) {
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
                throw Failure(number == ENOTDIR ? problem_of_look(given, number).reason : std::strerror(number));
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
            throw Failure(std::strerror(errno));
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
        throw Failure(fmt::format("{}: {}", displayed(given), failure.what()));
    }
}

class TreeComparison {
  public:
    TreeComparison(const TreeComparisonOptions &options, ComparisonObserver &observer)
        : m_options(options), m_observer(observer), m_selection(options.selection) {}

    void run(const Top &first, const Top &second) {
        const Side one{first.parent.get(), first.name, volume_facts(first.parent.get())};
        const Side other{second.parent.get(), second.name, volume_facts(second.parent.get())};
        m_selection.begin(first.path, m_options.named);
        struct stat found {};
        m_device = ::fstatat(one.directory, one.name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 ? found.st_dev : 0;
        if (takes(one.directory, one.name, first.path) && pair(one, first.path, other, second.path)) {
            directories(first.parent.get(), first.name, first.path, second.parent.get(), second.name, second.path);
        }
    }

  private:
    struct Level {
        End one, other;
        Listing listing, there;
        NameMatch names;
        std::vector<std::pair<std::string, std::string>> inner = {}; // directories of both, under their two names
    };

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
        bool same = false, directories = false;
        mode_t mode = 0;
        int64_t bytes = 0;
        const auto look = [&](const struct stat &first, const struct stat &second) {
            mode = first.st_mode;
            bytes = S_ISREG(mode) ? first.st_size : 0;
            same = inode_of(first) == inode_of(second);
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

    // Whether the two were compared under other names. A file that was one and is two is told.
    bool is_known_link(const std::string &path, const struct stat &first, const std::string &otherPath,
                       const struct stat &second) {
        if (first.st_nlink < 2 || !S_ISREG(first.st_mode) || !S_ISREG(second.st_mode)) {
            return false;
        }
        const auto [known, isNew] = m_links.try_emplace(inode_of(first), Linked{path, {}});
        std::vector<Inode> &arrived = known->second.arrived;
        const bool seen = std::ranges::find(arrived, inode_of(second)) != arrived.end();
        if (!seen) {
            arrived.push_back(inode_of(second));
        }
        if (!isNew && !seen) {
            lose(path, otherPath, LossClass::hard_link,
                 fmt::format("is one file with {} at the first, and a file of its own at the second: {} bytes",
                             displayed(known->second.path), first.st_size));
        }
        return seen;
    }

    // Directories under their names in two that are open. What cannot be opened is told.
    void directories(int parent, const std::string &name, const std::string &path, int otherParent,
                     const std::string &otherName, const std::string &otherPath, Level *above = nullptr) {
        std::unique_ptr<Level> level;
        try {
            End one(parent, name, path), other(otherParent, otherName, otherPath);
            Listing listing = list_directory(one.fd(), one.facts.store);
            Listing there = list_directory(other.fd(), other.facts.store);
            NameMatch names(other.fd(), other.facts.type, there, listing);
            level = std::make_unique<Level>(
                Level{std::move(one), std::move(other), std::move(listing), std::move(there), std::move(names)});
        } catch (const Failure &failure) {
            lose(path, otherPath, LossClass::unreadable, failure.what());
            return;
        }
        constexpr int mostHeld = 6;
        if (above != nullptr && ++m_depth > mostHeld) {
            above->one.let_go();
            above->other.let_go();
        }
        struct stat top {};
        if (::fstat(level->one.fd(), &top) == 0 && m_selection.enters(top.st_dev, m_device)) {
            entries(*level);
        }
        for (const auto &[inner, there] : std::exchange(level->inner, {})) {
            if (m_observer.stopped() || level->one.fd() < 0) {
                break;
            }
            directories(level->one.fd(), inner, joined(path, inner), level->other.fd(), there, joined(otherPath, there),
                        level.get());
        }
        if (above != nullptr) {
            --m_depth;
            if (level->one.fd() < 0 || !above->one.hold_again(level->one) || !above->other.hold_again(level->other)) {
                above->one.let_go();
                lose(path, otherPath, LossClass::unreadable,
                     "a directory was moved away meanwhile; what is left beside it was not compared");
            }
        }
    }

    void entries(Level &level) {
        for (const Listing::Part &part : level.listing.strangers) {
            stranger(level, part);
        }
        for (const Listing::Item &item : level.listing.items) {
            if (m_observer.stopped()) {
                return;
            }
            entry(level, item);
        }
        extras(level);
        // Nothing of it is needed for what is below, and it may be long.
        level.listing = {};
        level.there = {};
        level.names.forget();
    }

    void entry(Level &level, const Listing::Item &item) {
        if (is_left_over(item.name)) {
            return; // of a command that was stopped: nothing that is not somewhere else as well
        }
        const std::string path = joined(level.one.path, item.name);
        const NameMatch::Found found = level.names.find(item.name);
        const std::string otherPath = joined(level.other.path, found.name);
        if (!takes(level.one.fd(), item.name, path)) {
            return;
        }
        if (found.tooLong) {
            lose(path, otherPath, LossClass::name_too_long,
                 fmt::format("{} bytes are more than the volume takes", item.name.size()));
            m_observer.compared(path, kind_of_item(item), 0);
            return;
        }
        if (found.clash) {
            struct stat one {
            }, other{};
            (void)::fstatat(level.one.fd(), item.name.c_str(), &one, AT_SYMLINK_NOFOLLOW);
            (void)::fstatat(level.other.fd(), found.name.c_str(), &other, AT_SYMLINK_NOFOLLOW);
            lose(path, otherPath, class_of_clash(one.st_mode, other.st_mode),
                 fmt::format("{} has become the same entry", displayed(joined(level.one.path, *found.clash))));
            m_observer.compared(path, kind_of_item(item), 0);
            return;
        }
        const Side one{level.one.fd(), item.name, level.one.facts},
            other{level.other.fd(), found.name, level.other.facts};
        if (is_too_large(one, other, path, otherPath)) {
            return;
        }
        const bool walk = pair(one, path, other, otherPath);
        if (found.there && found.name != item.name) {
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
        lose(path, otherPath, LossClass::file_too_large,
             fmt::format("{} bytes, where the volume takes less than {}", found.st_size, limit));
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
        if (place < 0 || !plain(from, part.name, place, part.name)) {
            lose(path, otherPath, LossClass::not_carried,
                 part.inStore                  ? "is kept for no entry, and stays where it is"
                 : part.name.starts_with("._") ? "has a name that is kept for metadata, and stays where it is"
                 : is_system_name(part.name)   ? "belongs to the system, and stays where it is"
                                               : "has a name that is kept for metadata, and stays where it is");
        }
    }

    // What belongs to the appliance's system is no user's, wherever it comes from.
    void extras(const Level &level) {
        const auto meant = [&](const std::string &name) {
            return takes(level.other.fd(), name, joined(level.one.path, name));
        };
        for (const Listing::Item &item : level.there.items) {
            if (!level.names.is_taken(item.name) && !is_left_over(item.name) && meant(item.name)) {
                m_observer.extra(joined(level.other.path, item.name), kind_of_item(item));
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

    struct Linked {
        std::string path;           // the first name
        std::vector<Inode> arrived; // what it is at the second: several where it has become several
    };

    const TreeComparisonOptions &m_options;
    ComparisonObserver &m_observer;
    TreeSelection m_selection;
    dev_t m_device = 0; // of the first
    std::map<Inode, Linked> m_links;
    int m_depth = 0;
};

} // namespace

void compare_trees(const std::string &first, const std::string &second, const TreeComparisonOptions &options,
                   ComparisonObserver &observer) {
    const Top one = top_of(first), other = top_of(second);
    TreeComparison(options, observer).run(one, other);
}

} // namespace engine
