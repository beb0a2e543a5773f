#include "tools/engine/remove/tree_removal.h"

#include "ea/ea.h"
#include "platform/core.h"
#include "platform/sdk.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/transfer/placement.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/mount_table.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/workers/record.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace engine {
namespace {

constexpr off_t kQuicklyListed = off_t{1} << 20; // by its size: a directory of some ten thousand entries
constexpr size_t kMostKeptListed = 50'000;       // entries of a directory whose stores are listed
constexpr size_t kMostUncut = 100;
constexpr size_t kFewToRemove = 1'000;           // of a directory: not worth another process
constexpr int kOfTheFile = 0, kOfTheStreams = 1; // what EARemove() removes
constexpr const char *kStreams[] = {"VexoEAStream", "VexoResource"};
// How a job tells what is to be removed.
enum class Asked : uint8_t { by_path, given_away };
constexpr std::string_view kAppleDoubleMagic("\x00\x05\x16\x07", 4);

bool is_refused(const std::string &path) {
    const std::string name = base_name(path);
    return name.empty() || name == "..";
}

// The name in "@eaDir" of a stream of an entry; empty where the library gives none.
std::string stream_name(const std::string &path, const char *stream) {
    char place[PATH_MAX] = "";
    return VEXOEAPathNoADFS(1, path.c_str(), stream, place, sizeof place) == 0 ? base_name(place) : std::string();
}

bool is_directory_entry(const Entry &entry) {
    return entry.type == DT_DIR;
}

mode_t mode_of(const Entry &entry) {
    return static_cast<mode_t>(DTTOIF(entry.type));
}

// The entries of a directory that was just opened for reading, which is at its end then. Fewer calls than entries_in()
// takes, which leaves the time of the last access alone: of what goes nobody will see that.
std::optional<EntryBlock> entries_from(int directory) {
    constexpr size_t room = 32 * 1024;
    alignas(dirent64) std::array<char, room> listed;
    EntryBlock entries;
    ssize_t got = 0;
    while ((got = ::getdents64(directory, listed.data(), listed.size())) > 0) {
        for (size_t at = 0; at < static_cast<size_t>(got);) {
            const auto *const entry = reinterpret_cast<const dirent64 *>(listed.data() + at);
            const std::string_view name = entry->d_name;
            at += entry->d_reclen;
            if (entry->d_type == DT_UNKNOWN) { // a volume that does not tell it along with the name
                return entry_block_in(directory);
            }
            if (name != "." && name != "..") {
                entries.add(entry->d_name, entry->d_type);
            }
        }
    }
    return got == 0 ? std::optional(std::move(entries)) : std::nullopt;
}

// An "@eaDir" in which nothing is left but a cover goes.
void clear_stores(const DirectoryChain &way) {
    (void)EARemoveEADir(way.path_of("@eaDir").c_str());
}

// Whether anything may be kept beside the entries of a directory.
bool may_keep(const EntryBlock &entries, int type) {
    const bool doubles = store_kind(type) == StoreKind::apple_double;
    return entries.any_of(
        [doubles](const std::string &name) { return is_store_name(name) || (doubles && name.starts_with("._")); });
}

// Whether an entry, or the open directory itself where the name is empty, has the flag "immutable" or "append only",
// for which nobody removes it, nor anything in it.
bool may_not_change(int directory, const std::string &name) {
    struct statx found {};
    constexpr uint64_t flags = STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND;
    return ::statx(directory, name.c_str(), AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE,
                   &found) == 0 &&
           (found.stx_attributes & found.stx_attributes_mask & flags) != 0;
}

// What the kernel says of an entry that is no longer of the kind that it was listed as.
Problem problem_of_entry(int number) {
    const bool another = number == ENOTDIR || number == ELOOP || number == EISDIR;
    return another ? Problem{"was replaced by something else meanwhile; not removed"} : problem_of_errno(number);
}

} // namespace

void TreeRemoval::run(const std::string &given) {
    const bool slash = given.size() > 1 && given.ends_with('/');
    const bool itself = given.ends_with("/.");
    m_path = given.substr(0, given.size() - (itself ? 2 : slash ? 1 : 0));
    if (itself || is_refused(m_path)) {
        m_path = m_path.empty() ? "/" : m_path;
        failed(0, {"refused; \"/\", \".\" and \"..\" are never removed"});
        return;
    }
    const std::string name = base_name(m_path);
    std::optional<struct stat> found;
    if (open_parent(parent_of(m_path), name)) {
        found = m_parent.look(name);
    }
    if (!found) {
        const int number = errno;
        if (number == ENOENT && m_parent.is_open() && has_rest(name)) {
            remove_rest(name);
            return;
        }
        if (number == ENOENT && m_parent.is_open()) {
            remove_unfinished(name);
        }
        if (!m_options.force || (number != ENOENT && number != ENOTDIR)) {
            failed(0, problem_of_errno(number));
        }
        return;
    }
    if (slash && !S_ISDIR(found->st_mode)) {
        failed(found->st_mode, problem_of_slash(found->st_mode));
        return;
    }
    remove_entry(name, found->st_mode);
}

void TreeRemoval::run(const HeldDirectory &directory, const std::string &name) {
    m_path = joined(directory.path(), name);
    m_parent = HeldDirectory();
    const auto found =
        hold_parent(directory.fd(), directory.path(), directory.type()) ? directory.look(name) : std::nullopt;
    if (!found) {
        if (errno != ENOENT) {
            failed(0, problem_of_errno(errno));
        }
        return;
    }
    look_for_stores();
    remove_entry(name, found->st_mode);
}

void TreeRemoval::remove_entry(const std::string &name, mode_t mode) {
    EntryBlock only;
    only.add(name.c_str(), static_cast<unsigned char>(IFTODT(mode)));
    m_levels.front().list(std::move(only));
    walk();
}

void TreeRemoval::Level::list(EntryBlock listed) {
    entries = std::move(listed);
    next = 0;
    directories = 0;
    for (size_t at = 0; at < entries.size(); ++at) {
        directories += entries.type(at) == DT_DIR ? size_t{1} : size_t{0};
    }
}

// ---- Several processes ----

// Directories, or what else is left of a large one where nothing is kept beside its entries.
void TreeRemoval::share() {
    // The highest one first, since most is below it. Of a deep way the lowest ones and the first are open.
    for (size_t at = 0; at < m_levels.size(); at = at == 0 ? std::max<size_t>(1, m_way.first_held()) : at + 1) {
        const bool mayGive = m_levels[at].directories > (at + 1 < m_levels.size() ? 0 : 1);
        const bool mayGiveAll = m_levels[at].entries.size() - m_levels[at].next > kFewToRemove &&
                                !m_levels[at].hasStores && !m_options.kept && !m_options.rehearsal && (at > 0 || m_job);
        if ((mayGive || mayGiveAll) && !m_levels[at].entries_belong() && m_way.fd(at) >= 0 && give_half(at, !mayGive)) {
            return;
        }
    }
}

// The last ones of a directory, since they are the next to last to be removed.
bool TreeRemoval::give_half(size_t at, bool all) {
    Level &level = m_levels[at];
    const size_t most =
        all ? (level.entries.size() - level.next) / 2 : (level.directories + (at + 1 < m_levels.size() ? 1 : 0)) / 2;
    const size_t mostBytes = Channel::kMostBytes / 2;
    RecordWriter names;
    size_t given = 0, directories = 0, last = level.entries.size();
    for (; given < most && last > level.next && names.bytes().size() < mostBytes; --last) {
        if (const Entry entry = level.entries[last - 1]; all || is_directory_entry(entry)) {
            names.number(entry.type).text(entry.name);
            ++given;
            directories += is_directory_entry(entry) ? size_t{1} : size_t{0};
        }
    }
    RecordWriter job;
    job.number(Asked::given_away)
        .text(std::string_view(m_path).substr(0, level.pathLength))
        .number(level.type)
        .number(level.hasStores)
        .text(names.bytes());
    if (given == 0 || !m_crew->give(level.given, job.bytes(), {m_way.fd(at)})) {
        level.directories = 0; // not to be tried again
        return false;
    }
    level.entries.erase_if(last, [all](const Entry &entry) { return all || is_directory_entry(entry); });
    level.directories -= directories;
    return true;
}

Job TreeRemoval::job_of(const std::string &path) {
    return {RecordWriter().number(Asked::by_path).text(path).bytes(), {}};
}

bool TreeRemoval::run(Job job) {
    RecordReader reader(job.text);
    if (reader.number<Asked>() == Asked::by_path) {
        const std::string path = reader.text();
        begin(path);
        run(path);
        return true;
    }
    m_path = reader.text();
    Level level{.pathLength = m_path.size()};
    level.type = reader.number<int>();
    level.hasStores = reader.number<bool>();
    EntryBlock entries;
    for (RecordReader names(reader.view()); !names.is_at_end();) {
        const auto type = names.number<unsigned char>();
        entries.add(names.text().c_str(), type);
    }
    level.list(std::move(entries));
    m_job = true;
    if (job.files.size() != 1 || !m_way.start(std::move(job.files.front()))) {
        failed(S_IFDIR, problem_of_errno(errno));
        return false;
    }
    m_levels.push_back(std::move(level));
    walk();
    return m_levels.front().complete && m_levels.front().next == m_levels.front().entries.size();
}

std::vector<std::string> TreeRemoval::paths_of(std::string_view job) {
    RecordReader reader(job);
    if (reader.number<Asked>() == Asked::by_path) {
        return {reader.text()};
    }
    const std::string directory = reader.text();
    (void)reader.number<int>();
    (void)reader.number<bool>();
    std::vector<std::string> paths;
    for (RecordReader names(reader.view()); !names.is_at_end();) {
        (void)names.number<unsigned char>();
        paths.push_back(directory + "/" + names.text());
    }
    return paths;
}

// A slash at the end tells a directory.
void TreeRemoval::begin(const std::string &path) {
    if (m_crew != nullptr) {
        m_crew->begin(path);
    }
}

// ---- The walk ----

// Open while entries are removed: they are reached through it, so that nobody can put a link into the path meanwhile.
// False, with errno: it cannot be.
bool TreeRemoval::open_parent(const std::string &path, const std::string &name) {
    if (!m_parent.is(path)) {
        m_parent = HeldDirectory(path);
        struct stat found {};
        if (!m_parent.is_open() || ::fstat(m_parent.fd(), &found) != 0 ||
            !hold_parent(m_parent.fd(), path, m_parent.type())) {
            const int number = errno;
            m_parent = HeldDirectory();
            errno = number;
            return false;
        }
        // Where that takes no time: who removes the files of a large directory one by one should not list it each time.
        if (found.st_size <= kQuicklyListed && !is_private_name(name) &&
            m_tidied.insert({found.st_dev, found.st_ino}).second) {
            (void)clear_left_overs(m_parent);
        }
    }
    look_for_stores();
    return true;
}

// False, with errno: it cannot be.
bool TreeRemoval::hold_parent(int directory, const std::string &path, int type) {
    m_levels.clear();
    Descriptor top(::openat(directory, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (top.get() < 0 || !m_way.start(std::move(top))) {
        return false;
    }
    m_levels.push_back(Level{.pathLength = path == "/" ? 0 : path.size(), .type = type});
    return true;
}

// What cannot be looked at may be there.
void TreeRemoval::look_for_stores() {
    Level &level = m_levels.front();
    struct stat found {};
    level.stores = Descriptor(-1);
    level.hasStores = store_kind(level.type) == StoreKind::apple_double ||
                      ::fstatat(m_way.lowest(), "@eaDir", &found, AT_SYMLINK_NOFOLLOW) == 0 || errno != ENOENT;
}

void TreeRemoval::walk() {
    while (m_levels.size() > 1 || m_levels.back().next < m_levels.back().entries.size()) {
        if (m_crew != nullptr && m_crew->is_work_wanted() && !m_observer.stopped()) {
            share();
        }
        const Level &level = m_levels.back();
        if (level.next < level.entries.size() && !m_observer.stopped()) {
            remove_next();
        } else if (m_levels.size() > 1) {
            leave();
        } else {
            break;
        }
    }
    collect();
}

// What others do in the lowest level has to be done before that is.
void TreeRemoval::collect() {
    Level &level = m_levels.back();
    if (level.given != 0) {
        begin({}); // nothing is under way meanwhile
        level.complete = m_crew->collect(std::exchange(level.given, 0)).whole && level.complete;
    }
}

void TreeRemoval::remove_next() {
    Level &level = m_levels.back();
    const Entry entry = level.entries[level.next++];
    m_path.resize(level.pathLength);
    m_path += '/';
    m_path += entry.name;
    if (is_directory_entry(entry) && level.directories > 0) {
        --level.directories;
    }
    if (!level.entries_belong()) {
        begin(is_directory_entry(entry) ? m_path + '/' : m_path);
    }
    if (!is_asked_for() && !level.entries_belong()) {
        const NameKind kind = name_kind(m_way.path_of("."), entry.name, level.type);
        const bool went = kind == NameKind::stray && !exists(m_way.path_of(entry.name));
        if (kind == NameKind::store || kind == NameKind::companion || went) {
            return; // goes with what it belongs to, or has gone with it
        }
    }
    if (is_directory_entry(entry)) {
        enter(entry);
    } else if (confirmed(mode_of(entry), RemovalQuestion::entry)) {
        unlink(entry);
    }
}

void TreeRemoval::enter(const Entry &entry) {
    const bool belongs = m_levels.back().entries_belong();
    if (!m_options.recursive && !m_options.emptyDirectories) {
        failed(S_IFDIR, problem_of_directory());
        return;
    }
    Descriptor directory = open_directory(m_way.lowest(), entry.name);
    if (directory.get() < 0) {
        const int number = errno;
        if (number != ENOENT && !(number == EACCES && remove_unread(entry))) {
            failed(S_IFDIR, problem_of_entry(number));
        }
        return;
    }
    if (m_options.mountsStay && is_mount(m_way.lowest(), directory.get())) {
        static const Problem kMounted{"another volume is mounted there; stays"};
        m_levels.back().complete = false;
        m_observer.entry(m_path, S_IFDIR, Status::skipped, &kMounted);
        return;
    }
    if (m_options.recursive && !confirmed(S_IFDIR, RemovalQuestion::into_directory)) {
        return;
    }
    auto entries = m_options.rehearsal ? entry_block_in(directory.get()) : entries_from(directory.get());
    if (!entries && errno == ENOENT) {
        return; // removed by somebody else
    }
    if (!entries) {
        failed(S_IFDIR, problem_of_errno(errno));
        return;
    }
    if (!m_options.recursive && !belongs &&
        entries->any_of([](const std::string &inner) { return inner != "@eaDir"; })) {
        failed(S_IFDIR, {.reason = "is not empty", .needsRecursion = true});
        return;
    }
    if (!m_way.descend(std::move(directory), entry.name)) {
        failed(S_IFDIR, problem_of_errno(errno));
        return;
    }
    Level level{.name = entry.name, .pathLength = m_path.size(), .belongs = belongs};
    level.list(std::move(*entries));
    if (!belongs) {
        level.type = type_of_directory();
        level.hasStores = may_keep(level.entries, level.type);
    }
    m_levels.back().stores = Descriptor(-1);
    m_levels.push_back(std::move(level));
}

// A directory that may not be looked into goes where it is empty. False: it is not, or may not go.
bool TreeRemoval::remove_unread(const Entry &entry) {
    if (!confirmed(S_IFDIR, RemovalQuestion::entry)) {
        return true; // said so
    }
    if (!(m_options.rehearsal ? would_go(m_way.size() - 1, entry.name)
                              : ::unlinkat(m_way.lowest(), entry.name.c_str(), AT_REMOVEDIR) == 0)) {
        return false;
    }
    gone(entry.name, S_IFDIR);
    return true;
}

// Up from a directory of which nothing is left to look at.
void TreeRemoval::leave() {
    collect();
    Level &level = m_levels.back();
    m_path.resize(level.pathLength);
    if (!level.entries_belong()) {
        begin(m_path + '/');
    }
    level.complete = level.complete && !m_observer.stopped();
    const bool first = !level.belongs && !level.restOnly;
    if (first && level.complete) {
        level.complete = confirmed(S_IFDIR, RemovalQuestion::directory);
        if (level.complete && level.hasStores && !m_options.rehearsal && list_rest(level)) {
            if (!m_options.kept || !holds_strangers(level)) {
                return;
            }
            level.entries.clear();
            failed(S_IFDIR, {"holds what belongs to no entry, of which no backup can be kept; stays"});
        }
    }
    const bool held = m_way.hold_above();
    const Finished finished = held && level.complete ? finish() : Finished::failed;
    if (finished == Finished::not_yet) {
        return;
    }
    if (level.hasStores && !level.belongs && finished == Finished::failed && !m_options.rehearsal) {
        clear_stores(m_way);
    }
    const std::string name = std::move(level.name);
    m_levels.pop_back();
    m_way.ascend();
    Level &above = m_levels.back();
    if (finished == Finished::removed) {
        gone(name, S_IFDIR);
        return;
    }
    above.complete = false;
    if (!held) {
        m_path.resize(above.pathLength);
        above.entries.clear();
        above.next = 0;
        failed(S_IFDIR, {"was moved away meanwhile; what is left in it stays"});
    }
}

// The directory itself, once nothing of its own is in it.
TreeRemoval::Finished TreeRemoval::finish() {
    Level &emptied = m_levels.back();
    const bool went = m_options.rehearsal
                          ? would_go(m_way.size() - 2, emptied.name)
                          : ::unlinkat(m_way.fd(m_way.size() - 2), emptied.name.c_str(), AT_REMOVEDIR) == 0;
    if (went || errno == ENOENT) {
        return Finished::removed;
    }
    const int number = errno;
    const bool filled = number == ENOTEMPTY || number == EEXIST;
    if (filled && !emptied.belongs && !emptied.restOnly && list_rest(emptied)) {
        return Finished::not_yet;
    }
    failed(S_IFDIR, filled ? Problem{"something was put into it meanwhile"} : problem_of_entry(number));
    return Finished::failed;
}

// What is left when all entries are gone: a store, or metadata, of entries that were removed by somebody else. False:
// nothing.
bool TreeRemoval::list_rest(Level &emptied) {
    emptied.restOnly = true;
    emptied.next = 0;
    emptied.entries = entry_block_in(m_way.lowest()).value_or(EntryBlock());
    emptied.entries.erase_if(0, [&](const Entry &entry) {
        return !entry.name.starts_with("._") &&
               name_kind(m_way.path_of("."), entry.name, emptied.type) != NameKind::store;
    });
    return !emptied.entries.empty();
}

// Of what was moved to its backup nothing is left but an "@eaDir" in which nothing lies, maybe.
bool TreeRemoval::holds_strangers(Level &emptied) {
    clear_stores(m_way);
    emptied.entries.erase_if(0, [&](const Entry &entry) { return !exists(m_way.path_of(entry.name)); });
    return !emptied.entries.empty();
}

// The directory by the descriptor, since its path may be too long.
void TreeRemoval::keep(const Entry &entry) {
    const HeldDirectory directory(m_way.path_of("."));
    const auto problem = directory.is_open() ? m_observer.keep(directory, m_path) : problem_of_errno(errno);
    if (problem) {
        failed(mode_of(entry), *problem);
        return;
    }
    m_levels.back().complete = m_levels.back().complete && !m_options.keptBeside;
    m_observer.entry(m_path, mode_of(entry), Status::done, nullptr);
}

void TreeRemoval::unlink(const Entry &entry) {
    if (m_options.kept && !m_levels.back().entries_belong()) {
        keep(entry);
        return;
    }
    const bool would = m_options.rehearsal && would_go(m_way.size() - 1, entry.name);
    const int result = would ? 0 : m_options.rehearsal ? -1 : ::unlinkat(m_way.lowest(), entry.name.c_str(), 0);
    if (result != 0 && errno == ENOENT && !is_asked_for()) {
        return; // by somebody else, meanwhile
    }
    if (result != 0 && errno != ENOENT) {
        failed(mode_of(entry), problem_of_entry(errno));
        return;
    }
    gone(entry.name, mode_of(entry));
}

// An entry of the lowest level that was removed: what is kept for it goes too.
void TreeRemoval::gone(const std::string &name, mode_t mode) {
    const Level &level = m_levels.back();
    if (level.entries_belong()) {
        return;
    }
    const auto left = level.hasStores && !m_options.rehearsal ? remove_store(name) : std::nullopt;
    if (is_asked_for() && !m_options.rehearsal) {
        remove_unfinished(name);
    }
    m_observer.entry(m_path, mode, left ? Status::failed : Status::done, left ? &*left : nullptr);
}

// What was made of the store of an entry that was asked for, under a private name, when a command that is no more was
// killed. With the last of it the "@eaDir" goes.
void TreeRemoval::remove_unfinished(const std::string &name) {
    Level &level = m_levels.back();
    const auto remove = [](int directory, const std::string &unfinished) {
        const Descriptor file(::openat(directory, unfinished.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        const bool there = file.get() >= 0 || errno != ENOENT;
        const bool used = file.get() >= 0 && ::flock(file.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
        return there && !used && ::unlinkat(directory, unfinished.c_str(), 0) == 0;
    };
    const std::string standIn = private_name_for(name);
    if (remove(m_way.lowest(), standIn)) {
        (void)remove_store(standIn);
    }
    (void)remove(m_way.lowest(), private_name_for("._" + name));
    if (level.hasStores && open_stores()) {
        for (const char *stream : kStreams) {
            if (const std::string part = stream_name(m_way.path_of(name), stream); !part.empty()) {
                (void)remove(level.stores.get(), private_name_for(part));
            }
        }
        clear_stores(m_way);
        level.stores = Descriptor(-1); // the next request may find another one
    }
}

// False, with errno: there is none, or a link or whatever else is in its place.
bool TreeRemoval::open_stores() {
    Level &level = m_levels.back();
    if (level.stores.get() < 0) {
        level.stores = Descriptor(::openat(m_way.lowest(), "@eaDir", O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        // What comes later goes with the directory.
        if (level.stores.get() >= 0 && !is_asked_for() && !std::exchange(level.keptAsked, true) &&
            level.entries.size() <= kMostKeptListed) {
            if (const auto names = names_in(level.stores.get()); names && names->size() <= 2 * kMostKeptListed) {
                level.kept.emplace(names->begin(), names->end());
            }
        }
    }
    return level.stores.get() >= 0;
}

// Not by VEXOEARemove(), which marks for the next backup whatever stands under the name by then.
std::optional<Problem> TreeRemoval::remove_store(const std::string &name) {
    const Level &level = m_levels.back();
    const StoreKind kind = level.type < 0 ? StoreKind::ea_directory : store_kind(level.type);
    if (kind == StoreKind::native || kind == StoreKind::none) {
        return std::nullopt;
    }
    const std::string path = m_way.path_of(name);
    constexpr const char *incomplete = "removed, but not all of its extended metadata";
    VLIBCErrSetEx(0, "", 0);
    if (kind == StoreKind::apple_double) {
        char place[PATH_MAX] = "";
        if (VEXOEAADPath(path.c_str(), place, sizeof place) == 0 &&
            ::unlinkat(m_way.lowest(), base_name(place).c_str(), 0) != 0 && errno != ENOENT) {
            return Problem{incomplete, problem_of_errno(errno).code};
        }
    }
    if (!open_stores() && errno == ENOENT) {
        return std::nullopt;
    }
    bool complete = kind == StoreKind::apple_double || remove_streams(name);
    if (level.kept && !level.kept->contains(name)) {
        return complete ? std::nullopt : std::optional(Problem{incomplete, VLIBCErrGet()});
    }
    // Of most there is none. One that holds anything, and whatever else stands there, is the library's, to which one
    // that somebody else removes at the same time is a failure.
    const int stores = level.stores.get();
    if (stores < 0 || (::unlinkat(stores, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT)) {
        struct stat left {};
        complete =
            (EARemove(kOfTheFile, path.c_str()) == 0 ||
             (stores >= 0 && ::fstatat(stores, name.c_str(), &left, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT)) &&
            complete;
    }
    return complete ? std::nullopt : std::optional(Problem{incomplete, VLIBCErrGet()});
}

// No volume cuts a name as short as those that are looked for in the list.
bool TreeRemoval::remove_streams(const std::string &entry) {
    const Level &level = m_levels.back();
    const std::string path = m_way.path_of(entry);
    for (const char *stream : kStreams) {
        std::string name = fmt::format("{}@{}", entry, stream);
        const bool listed = level.kept && name.size() <= kMostUncut;
        if (listed && !level.kept->contains(name)) {
            continue;
        }
        name = level.stores.get() < 0 ? std::string() : listed ? name : stream_name(path, stream);
        if (name.empty() || (::unlinkat(level.stores.get(), name.c_str(), 0) != 0 && errno != ENOENT)) {
            return EARemove(kOfTheStreams, path.c_str()) == 0; // which tells why
        }
    }
    return true;
}

// Whether an entry that is gone has left what was kept beside it. Of a "._" file the name alone does not say so.
bool TreeRemoval::has_rest(const std::string &name) const {
    if (!has_store(m_parent, name)) {
        return false;
    }
    if (store_kind(m_parent.type()) != StoreKind::apple_double) {
        return true;
    }
    const Descriptor file(
        ::openat(m_parent.fd(), ("._" + name).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    char bytes[4] = "";
    struct stat found {};
    return file.get() >= 0 && ::fstat(file.get(), &found) == 0 && S_ISREG(found.st_mode) &&
           ::read(file.get(), bytes, sizeof bytes) == sizeof bytes &&
           std::string_view(bytes, sizeof bytes) == kAppleDoubleMagic;
}

void TreeRemoval::remove_rest(const std::string &name) {
    if (!confirmed(0, RemovalQuestion::rest)) {
        return;
    }
    const auto left = remove_store(name);
    remove_unfinished(name);
    if (left) {
        failed(0, {"is gone already, but not all of what was kept beside it", left->code});
        return;
    }
    const Problem said{"was gone already; what was kept beside it is removed"};
    m_observer.entry(m_path, 0, Status::done, &said);
}

// By the path, since an override of types goes by the text of paths, where that is not too long.
int TreeRemoval::type_of_directory() const {
    const int type = m_path.size() < PATH_MAX ? VEXOGetFSType(m_path.c_str(), 0) : -1;
    const size_t lowest = m_way.size() - 1;
    return type >= 0                                          ? type
           : m_way.device(lowest) == m_way.device(lowest - 1) ? m_levels.back().type
                                                              : VEXOGetFSType(m_way.path_of(".").c_str(), 0);
}

bool TreeRemoval::confirmed(mode_t mode, RemovalQuestion question) {
    Level &level = m_levels.back();
    const bool belongs = question == RemovalQuestion::directory ? level.belongs : level.entries_belong();
    if (belongs || m_observer.may_remove(m_path, question)) {
        return true;
    }
    level.complete = false;
    m_observer.entry(m_path, mode, Status::skipped, nullptr);
    return false;
}

// What a removal would be refused for can be told of flags, rights and mounted volumes; errno is the kernel's then.
bool TreeRemoval::would_go(size_t level, const std::string &name) {
    const int directory = m_way.fd(level);
    int &closed = m_levels[level].closed;
    if (closed < 0) {
        const bool flagged = may_not_change(directory, "");
        closed = flagged ? EPERM : ::faccessat(directory, ".", W_OK | X_OK, AT_EACCESS) == 0 ? 0 : errno;
    }
    errno = closed != 0 ? closed : EPERM;
    return closed == 0 && !may_not_change(directory, name);
}

void TreeRemoval::failed(mode_t mode, const Problem &problem) {
    if (!m_levels.empty()) {
        m_levels.back().complete = false;
    }
    m_observer.entry(m_path, mode, Status::failed, &problem);
}

} // namespace engine
