#include "tools/engine/shards/division.h"

#include "platform/sdk.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/report/names.h"
#include "tools/engine/select/tree_selection.h"
#include "tools/engine/shards/balance.h"
#include "tools/engine/shards/shard_lists.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/walk/descent.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/directory_chain.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <utility>

namespace engine {
namespace {

// Holes take no time. A volume that does not say what a file takes says nothing of holes.
int64_t bytes_of(const struct stat &entry) {
    if (!S_ISREG(entry.st_mode)) {
        return 0;
    }
    const int64_t taken = int64_t{entry.st_blocks} * 512;
    return taken == 0 ? entry.st_size : std::min<int64_t>(entry.st_size, taken);
}

class DivisionWalk {
  public:
    DivisionWalk(const std::string &source, ShardLists &lists, size_t shards, DivisionObserver &observer,
                 const Selection &selection)
        : m_source(source), m_lists(lists), m_observer(observer), m_balance(static_cast<int>(shards)),
          m_selection(selection), m_at("") {
        m_division.shards.resize(shards);
        m_selection.begin(source, false);
    }

    Division run(Descriptor top) {
        m_lists.add_directory(".");
        ++m_division.directories;
        struct stat found {};
        if (::fstat(top.get(), &found) != 0 || !m_way.start(std::move(top))) {
            throw_errno(displayed(m_source));
        }
        m_volume = found.st_dev;
        m_at.enter(entries());
        while (!m_at.empty() && !m_observer.stopped()) {
            if (const std::string *const name = m_at.next()) {
                directory(*name);
            } else {
                leave();
            }
        }
        return std::move(m_division);
    }

  private:
    std::string path() const { return m_at.path.empty() ? m_source : joined(m_source, m_at.path); }
    std::string below(const std::string &name) const { return m_at.path.empty() ? name : m_at.path + "/" + name; }

    void unreadable() { m_observer.unreadable(path(), problem_of_errno(errno)); }

    // Of the directory that the walk is in; those that are to be entered.
    std::vector<std::string> entries() {
        std::vector<std::string> directories;
        const std::string held = fmt::format("/proc/self/fd/{}", m_way.lowest());
        int type = VEXOGetFSType(path().c_str(), 0);
        type = type < 0 ? VEXOGetFSType(held.c_str(), 0) : type; // the path may be too long
        const bool all = each_entry(m_way.lowest(), [&](const char *given, unsigned char) {
            const std::string name = given;
            const NameKind kind = m_observer.stopped() ? NameKind::store : name_kind(held, name, type);
            if (kind == NameKind::store || kind == NameKind::companion) {
                return;
            }
            struct stat found {};
            if (::fstatat(m_way.lowest(), given, &found, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno != ENOENT) { // else it is gone again
                    m_observer.unreadable(joined(path(), name), problem_of_errno(errno));
                }
                return;
            }
            if (!m_selection.takes(joined(path(), name), joined(held, name), found)) {
                return;
            }
            if (S_ISDIR(found.st_mode) && kind == NameKind::ordinary) {
                directories.push_back(name);
            } else {
                add(name, found);
            }
        });
        if (!all) {
            unreadable();
        }
        return directories;
    }

    void add(const std::string &name, const struct stat &found) {
        bool first = true;
        const int64_t bytes = bytes_of(found);
        const bool several = !S_ISDIR(found.st_mode) && found.st_nlink > 1;
        const size_t shard = several ? m_balance.next_of(found, bytes, first) : m_balance.next(bytes);
        m_lists.add(shard, below(name));
        ++m_division.shards[shard].entries;
        m_division.shards[shard].bytes += first ? bytes : 0;
    }

    void directory(const std::string &name) {
        const std::string path = below(name);
        Descriptor opened = open_directory(m_way.lowest(), name);
        const int number = errno;
        struct stat found {};
        if (opened.get() < 0 && (number == ENOENT || number == ENOTDIR || number == ELOOP)) {
            const std::string held = fmt::format("/proc/self/fd/{}/{}", m_way.lowest(), name);
            if (::fstatat(m_way.lowest(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
                m_selection.takes(joined(m_source, path), held, found)) {
                add(name, found); // exchanged meanwhile
            }
            return;
        }
        const bool entered =
            opened.get() < 0 || ::fstat(opened.get(), &found) != 0 || m_selection.enters(found.st_dev, m_volume);
        found.st_mode = S_IFDIR;
        add(name, found);
        m_lists.add_directory(path);
        ++m_division.directories;
        if (!entered) {
            return;
        }
        m_at.path = path;
        errno = number;
        if (opened.get() < 0 || !m_way.descend(std::move(opened), name)) {
            unreadable();
            return;
        }
        m_at.enter(entries());
    }

    void leave() {
        const bool held = m_at.is_at_top() || m_way.hold_above();
        m_at.leave();
        m_way.ascend();
        if (!held) {
            throw Failure(fmt::format("{}: a directory was moved away meanwhile; nothing is planned", path()));
        }
    }

    const std::string &m_source;
    ShardLists &m_lists;
    DivisionObserver &m_observer;
    Balance m_balance;
    TreeSelection m_selection;
    dev_t m_volume = 0; // the top's
    Division m_division = {};
    Descent<std::string> m_at; // below the source
    DirectoryChain m_way;
};

} // namespace

Division divide_tree(const std::string &source, const std::string &out, int shards, DivisionObserver &observer,
                     const Selection &selection) {
    const std::string from = absolute_path(source);
    Descriptor top(::open(from.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (top.get() < 0) {
        throw_errno(displayed(from));
    }
    if (lies_in(absolute_path(out), from)) {
        throw InvalidRequest(fmt::format("{}: lists of {} cannot lie in it", displayed(out), displayed(from)));
    }
    ShardLists lists(out, shards);
    Division division = DivisionWalk(from, lists, static_cast<size_t>(shards), observer, selection).run(std::move(top));
    if (!observer.stopped()) {
        lists.complete();
        division.whole = true;
    }
    return division;
}

} // namespace engine
