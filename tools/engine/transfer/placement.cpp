#include "tools/engine/transfer/placement.h"

#include "ea/ea.h"
#include "platform/core.h"
#include "tools/engine/store/store_directory.h"
#include "tools/engine/transfer/departure.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/directory_lock.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/rename.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace engine {
namespace {

// A note of a placement, by what is done next once the file has its name: the old store goes, then the new one follows.
constexpr std::string_view kOldStoreGoes = ".clear", kNewStoreFollows = ".store";
// Of an entry that goes: what is kept for it follows.
constexpr std::string_view kEntryGoes = ".gone";

bool is_note(std::string_view name) {
    return name.ends_with(kOldStoreGoes) || name.ends_with(kNewStoreFollows) || name.ends_with(kEntryGoes);
}

constexpr char kNotFoundThere[] = "it is there, but what is kept for it could not be found where it was";

struct Note {
    ino_t inode = 0; // of the entry that is placed: where it is tells how far things are
    std::string name = {};
    // Of one that comes from a directory of its own, by the path of that, which still has to be the same: there its
    // store is, under the name that it had. Empty: it was made here, under the name of the note.
    std::string fromPath = {};
    dev_t fromDevice = 0;
    ino_t fromInode = 0;
    std::string before = {};
};
constexpr size_t kLongestNote = PATH_MAX + 2 * NAME_MAX + 128;

// What cannot be looked at is there: who goes on to rename or remove it is told why that fails.
bool lies_there(const std::string &path) {
    struct stat found {};
    return ::lstat(path.c_str(), &found) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

bool lies_there(int result, const char *place) {
    return result == 0 && lies_there(place);
}

bool write_note(const HeldDirectory &directory, const std::string &path, const Note &note) {
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const Descriptor file(::openat(directory.fd(), path.c_str(), flags, 0600));
    if (file.get() < 0) {
        return false;
    }
    std::string text = fmt::format("{}\n{}", note.inode, note.name);
    if (!note.before.empty()) { // no name has a NUL
        const char nul = '\0';
        text += fmt::format("{}{}\n{}\n{}{}{}", nul, note.fromDevice, note.fromInode, note.fromPath, nul, note.before);
    }
    errno = ENOSPC; // of a write that ends early
    return ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool is_plain(std::string_view name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos &&
           name.find('\0') == std::string_view::npos;
}

// A number with a line feed behind it, taken off.
template <typename Number>
bool take_line(std::string_view &text, Number &number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const auto used = static_cast<size_t>(end - text.data());
    if (error != std::errc() || used >= text.size() || text[used] != '\n') {
        return false;
    }
    text.remove_prefix(used + 1);
    return true;
}

std::optional<Note> parse_note(std::string_view text) {
    Note note;
    if (!take_line(text, note.inode)) {
        return std::nullopt;
    }
    const size_t end = text.find('\0');
    note.name = text.substr(0, end);
    if (!is_plain(note.name) || end == std::string_view::npos) {
        return is_plain(note.name) ? std::optional(note) : std::nullopt;
    }
    text.remove_prefix(end + 1);
    if (!take_line(text, note.fromDevice) || !take_line(text, note.fromInode)) {
        return std::nullopt;
    }
    const size_t path = text.find('\0');
    note.fromPath = text.substr(0, path);
    note.before = path == std::string_view::npos ? std::string_view() : text.substr(path + 1);
    return is_plain(note.before) ? std::optional(note) : std::nullopt;
}

// Only one that we have written ourselves counts: in a directory of somebody else a name proves nothing. `ours`: it is
// one of those, though there may be no more than half of it.
std::optional<Note> read_note(const HeldDirectory &directory, const std::string &path, bool &ours) {
    ours = false;
    const Descriptor file(::openat(directory.fd(), path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat found {};
    char text[kLongestNote];
    if (file.get() < 0 || ::fstat(file.get(), &found) != 0 || !S_ISREG(found.st_mode) || found.st_nlink != 1 ||
        found.st_uid != ::geteuid()) {
        return std::nullopt;
    }
    ours = true;
    const ssize_t size = ::read(file.get(), text, sizeof text);
    const std::string_view all(text, size < 0 ? 0 : static_cast<size_t>(size));
    return parse_note(all);
}

// A part of a store that has no other place than its file's new name asks for. One that is not there is none.
bool rename_part(int directory, const char *before, const char *now) {
    const std::string part = base_name(before);
    if (::renameat(directory, part.c_str(), directory, base_name(now).c_str()) == 0 || errno == ENOENT) {
        return true;
    }
    // A refusal may come before the look whether it is there.
    const int number = errno;
    struct stat found {};
    const bool missing = ::fstatat(directory, part.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
    errno = number;
    return missing;
}

// What is kept beside an entry under its new name. The library's own renaming marks the entry as changed, too.
bool rename_parts(const HeldDirectory &directory, const std::string &before, const std::string &now) {
    const std::string from = directory.below(before), to = directory.below(now);
    char made[PATH_MAX] = "", name[PATH_MAX] = "";
    if (store_kind(directory.type()) == StoreKind::apple_double && VEXOEAADPath(from.c_str(), made, sizeof made) == 0) {
        const bool named = VEXOEAADPath(to.c_str(), name, sizeof name) == 0;
        errno = ENAMETOOLONG;
        if (named ? !rename_part(directory.fd(), made, name) : lies_there(made)) {
            return false;
        }
    }
    const Descriptor stores = open_directory(directory.fd(), "@eaDir");
    if (stores.get() < 0) {
        return errno == ENOENT;
    }
    for (const char *stream : {"VexoEAStream", "VexoResource"}) {
        if (VEXOEAPathNoADFS(1, from.c_str(), stream, made, sizeof made) == 0 &&
            VEXOEAPathNoADFS(1, to.c_str(), stream, name, sizeof name) == 0 && !rename_part(stores.get(), made, name)) {
            return false;
        }
    }
    return rename_part(stores.get(), before.c_str(), now.c_str());
}

bool keeps_stores_beside(const HeldDirectory &directory) {
    const StoreKind kind = store_kind(directory.type());
    return kind == StoreKind::apple_double || kind == StoreKind::ea_directory || kind == StoreKind::file_ea;
}

bool keeps_stores_in_directory(const HeldDirectory &directory) {
    const StoreKind kind = store_kind(directory.type());
    return kind == StoreKind::ea_directory || kind == StoreKind::file_ea;
}

bool has_store_of(const HeldDirectory &directory, std::initializer_list<std::string> names) {
    char place[PATH_MAX] = "";
    const StoreKind kind = store_kind(directory.type());
    const auto has_double = [&](const std::string &name) {
        return lies_there(VEXOEAADPath(directory.below(name).c_str(), place, sizeof place), place);
    };
    const auto has_part = [&](const std::string &name) {
        const std::string path = directory.below(name);
        return lies_there(VEXOEAPathNoADFS(1, path.c_str(), "VexoEAStream", place, sizeof place), place) ||
               lies_there(VEXOEAPathNoADFS(1, path.c_str(), "VexoResource", place, sizeof place), place) ||
               lies_there(VEXOEADirPath(0, path.c_str(), place, sizeof place), place);
    };
    if (!keeps_stores_beside(directory)) {
        return false;
    }
    return (kind == StoreKind::apple_double && std::ranges::any_of(names, has_double)) ||
           (lies_there(directory.below("@eaDir")) && std::ranges::any_of(names, has_part));
}

// Looks again afterwards: what the library could not look at it takes for nothing to remove.
bool clear_store(const HeldDirectory &directory, const std::string &name) {
    return !has_store(directory, name) ||
           (remove_beside(directory.below(name), directory.type()) == 0 && !has_store(directory, name));
}

Problem failed_with(const char *what) {
    return {what, VLIBCErrGet()};
}

// Marks the entry as changed, too, whatever is kept for it. An "@eaDir" that is empty goes with whoever leaves it:
// where that comes in between the library takes what is to follow for gone, and says nothing.
std::optional<Problem> follow(const HeldDirectory &from, const std::string &before, const HeldDirectory &to,
                              const std::string &name) {
    constexpr int tries = 8;
    const bool itself = from.fd() == to.fd() && before == name;
    const bool made = !itself && keeps_stores_in_directory(to) && lacks_store_directory(to.fd()) &&
                      has_store(from, before) && make_store_directory(to.below("@eaDir")) == 0;
    const auto tidy = [&] { // where nothing followed
        const int number = errno;
        (void)(made && ::unlinkat(to.fd(), "@eaDir", AT_REMOVEDIR) == 0);
        errno = number;
    };
    for (int count = 0; count < tries; ++count) {
        const int result = VEXOEARename(from.below(before).c_str(), to.below(name).c_str(), to.type(), 0);
        if (result == 0 && (itself || !has_store(from, before))) {
            tidy();
            return std::nullopt;
        }
        if (result != 0) {
            break;
        }
    }
    tidy();
    return failed_with("moved, but its extended metadata could not follow");
}

// What is kept for an entry follows it from another directory, unless another entry has its old name by now.
std::optional<Problem> follow(const HeldDirectory &to, const Note &note, const HeldDirectory &from) {
    struct stat found {};
    const bool same = from.is_open() && ::fstat(from.fd(), &found) == 0 && found.st_dev == note.fromDevice &&
                      found.st_ino == note.fromInode;
    if (!same || from.look(note.before) || errno != ENOENT) {
        return Problem{kNotFoundThere};
    }
    return follow(from, note.before, to, note.name);
}

// The steps behind an entry that has its name. Each can be done again.
Problem try_to_finish_store(const HeldDirectory &directory, const std::string &made, const Note &note,
                            const HeldDirectory *from) {
    const std::string clear = made + std::string(kOldStoreGoes), next = made + std::string(kNewStoreFollows);
    const auto is_first = [&] { return lies_there(directory.below(clear)); };
    if (is_first() || is_first()) { // asked twice, as below
        // Only where there is something: a removal marks the entry as changed.
        if (!clear_store(directory, note.name)) {
            return failed_with("it is there, but what was kept beside an old file of its name could not be removed");
        }
        if (::renameat(directory.fd(), clear.c_str(), directory.fd(), next.c_str()) != 0) {
            return problem_of_errno(errno);
        }
    }
    if (!note.before.empty()) {
        const HeldDirectory opened = from == nullptr ? HeldDirectory(note.fromPath) : HeldDirectory();
        if (auto problem = follow(directory, note, from != nullptr ? *from : opened)) {
            return *problem;
        }
    } else if (!rename_parts(directory, made, note.name)) {
        return problem_of_errno(errno);
    }
    // Asked twice, since a note that stays is read by whoever comes next.
    if (::unlinkat(directory.fd(), next.c_str(), 0) != 0) {
        ::unlinkat(directory.fd(), next.c_str(), 0);
    }
    return Problem{};
}

// Tried twice: an error may be one that is told only once, and a note that stays is work for whoever comes next.
Problem finish_store(const HeldDirectory &directory, const std::string &made, const Note &note,
                     const HeldDirectory *from) {
    const Problem problem = try_to_finish_store(directory, made, note, from);
    return problem.reason.empty() || problem.reason == kNotFoundThere
               ? problem
               : try_to_finish_store(directory, made, note, from);
}

bool rename_made(const Placement &placement) {
    const int directory = placement.directory.fd();
    const char *const made = placement.made.c_str();
    if (!placement.replace) {
        return rename_without_replacing(directory, placement.made, directory, placement.name);
    }
    const bool renamed = ::renameat(directory, made, directory, placement.name.c_str()) == 0;
    // Of two names of one file the kernel leaves both.
    if (renamed && placement.linked && ::unlinkat(directory, made, 0) != 0 && errno != ENOENT) {
        ::unlinkat(directory, made, 0);
    }
    return renamed;
}

// A command makes a directory of such a name for itself alone, whereas a file has its source's owner before it has its
// name: a directory that anybody else may enter is somebody's own, whatever it is called and whoever made that up.
bool may_be_ours(const HeldDirectory &directory, const std::string &name) {
    constexpr mode_t bits = 07777, closed = 0700;
    const auto found = directory.look(name);
    return found && (!S_ISDIR(found->st_mode) || (found->st_uid == ::geteuid() && (found->st_mode & bits) == closed));
}

// False: the note stays, and so does what it tells of.
bool clear_note(const HeldDirectory &directory, const std::string &path) {
    const std::string made(without_suffix(path));
    bool ours = false;
    const auto known = read_note(directory, path, ours);
    const HeldDirectory from = known && !known->before.empty() ? HeldDirectory(known->fromPath) : HeldDirectory();
    const DirectoryLock lock(directory.fd(), from.is_open() ? from.fd() : -1);
    if (lock.is_refused()) {
        return false;
    }
    // Somebody else may have finished it until the lock was ours.
    const auto note = read_note(directory, path, ours);
    if (!ours) {
        return false;
    }
    const auto there = note ? directory.look(note->name) : std::nullopt;
    if (path.ends_with(kEntryGoes)) {
        const bool gone = note && !there && errno == ENOENT;
        return (!gone || clear_store(directory, note->name)) && ::unlinkat(directory.fd(), path.c_str(), 0) == 0;
    }
    if (there && there->st_ino == note->inode && !directory.look(made)) {
        if (finish_store(directory, made, *note, nullptr).reason == kNotFoundThere) {
            ::unlinkat(directory.fd(), (made + std::string(kNewStoreFollows)).c_str(), 0); // nobody will find it
        }
    } else {
        ::unlinkat(directory.fd(), path.c_str(), 0);
        discard(directory, made);
    }
    return true;
}

// What is said of an entry that has its name, once its store has it too. Where no lock could be had another command may
// have put another one there between the two. `placed`: open, since on some volumes a number changes with the name.
Problem once_placed(const DirectoryLock &lock, const HeldDirectory &directory, const std::string &name,
                    const Descriptor &placed, Problem problem) {
    const auto there = directory.look(name);
    struct stat own {};
    if (placed.get() < 0 || ::fstat(placed.get(), &own) != 0 || same(own, there)) {
        return problem;
    }
    // It brought no store, or it would have waited; what lies beside it now is ours.
    if (lock.is_held() && there) {
        (void)clear_store(directory, name);
    }
    return {.reason = "it was placed, but another command has replaced it meanwhile", .replaced = true};
}

Descriptor opened_entry(const HeldDirectory &directory, const std::string &name) {
    return Descriptor(::openat(directory.fd(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

// Of an entry without a store, for which no lock is taken: another one may have been placed since it was looked whether
// there is any. Whose that is cannot be told, so it stays.
Problem without_store(const HeldDirectory &directory, const std::string &name, bool replaced) {
    return replaced && has_store(directory, name)
               ? Problem{.reason = "it is there, but so is now what another command has placed beside it meanwhile",
                         .replaced = true}
               : Problem{};
}

} // namespace

bool has_store(const HeldDirectory &directory, const std::string &name) {
    return has_store_of(directory, {name});
}

bool gets_into_the_file(const HeldDirectory &from, const std::string &name, int type) {
    const auto in_file = [](StoreKind kind) { return kind == StoreKind::native || kind == StoreKind::file_ea; };
    return in_file(store_kind(type)) && !in_file(store_kind(from.type())) && has_store(from, name);
}

std::optional<Problem> place(const Placement &placement) {
    const HeldDirectory &directory = placement.directory;
    const bool known = placement.hasStore && keeps_stores_beside(directory);
    if (!known && (!placement.withStore || !has_store_of(directory, {placement.made, placement.name}))) {
        return rename_made(placement)
                   ? std::optional(without_store(directory, placement.name, placement.withStore && placement.replace))
                   : std::nullopt;
    }
    const DirectoryLock lock(directory.fd());
    if (lock.is_refused()) {
        return std::nullopt;
    }
    const std::string note = placement.made + std::string(kOldStoreGoes);
    const auto made = directory.look(placement.made);
    const Descriptor entry = opened_entry(directory, placement.made);
    const Note text{.inode = made ? made->st_ino : 0, .name = placement.name};
    if (!made || !write_note(directory, note, text) || !rename_made(placement)) {
        const int number = errno;
        ::unlinkat(directory.fd(), note.c_str(), 0);
        errno = number;
        return std::nullopt;
    }
    Problem problem = finish_store(directory, placement.made, text, nullptr);
    return once_placed(lock, directory, placement.name, entry, std::move(problem));
}

namespace {

bool rename_entry(const Renaming &renaming) {
    const HeldDirectory &from = renaming.from, &to = renaming.to;
    return renaming.replace ? ::renameat(from.fd(), renaming.before.c_str(), to.fd(), renaming.name.c_str()) == 0
                            : rename_without_replacing(from.fd(), renaming.before, to.fd(), renaming.name);
}

// What follows is nothing, from its own name to the same: that marks it as changed, and takes nothing that another
// entry of its old name may have by now.
std::optional<Problem> rename_without_store(const Renaming &renaming) {
    if (!rename_entry(renaming)) {
        return std::nullopt;
    }
    if (!renaming.withStore) {
        return Problem{};
    }
    Problem problem = without_store(renaming.to, renaming.name, renaming.replace);
    return problem.reason.empty()
               ? follow(renaming.to, renaming.name, renaming.to, renaming.name).value_or(std::move(problem))
               : problem;
}

// A path at which another process finds the directory: who walks by descriptors has one that is his alone. Where the
// kernel tells none it stays that, and what would be looked for there is not found.
std::string path_for_others(const HeldDirectory &directory) {
    if (!directory.path().starts_with("/proc/self/")) {
        return directory.path();
    }
    char path[PATH_MAX] = "";
    const std::string link = fmt::format("/proc/self/fd/{}", directory.fd());
    const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
    return length > 0 && length < PATH_MAX ? std::string(path, static_cast<size_t>(length)) : directory.path();
}

} // namespace

std::optional<Problem> rename_with_store(const Renaming &renaming) {
    const HeldDirectory &from = renaming.from, &to = renaming.to;
    const auto stored = [&] { return has_store(from, renaming.before) || has_store(to, renaming.name); };
    const bool known = renaming.withStore && stored();
    if (!renaming.withStore || (!known && !renaming.awaits)) {
        return rename_without_store(renaming);
    }
    const DirectoryLock lock(to.fd(), from.fd());
    if (!known && !lock.is_refused() && !stored()) {
        return rename_without_store(renaming);
    }
    struct stat directory {};
    const auto entry = from.look(renaming.before);
    if (lock.is_refused() || !entry || ::fstat(from.fd(), &directory) != 0) {
        errno = lock.is_refused() ? EWOULDBLOCK : errno;
        return std::nullopt;
    }
    const Descriptor renamed = opened_entry(from, renaming.before);
    const Note note{entry->st_ino,    renaming.name,    path_for_others(from),
                    directory.st_dev, directory.st_ino, renaming.before};
    const std::string made = next_private_name(), path = made + std::string(kOldStoreGoes);
    // Without room for a note nothing but a kill can part the two.
    const bool noted = write_note(to, path, note);
    if (!noted && errno != ENOSPC && errno != EDQUOT) {
        return std::nullopt;
    }
    if (!rename_entry(renaming)) {
        const int number = errno;
        ::unlinkat(to.fd(), path.c_str(), 0);
        errno = number;
        return std::nullopt;
    }
    if (noted) {
        return once_placed(lock, to, renaming.name, renamed, finish_store(to, made, note, &from));
    }
    ::unlinkat(to.fd(), path.c_str(), 0); // half of one
    if (!clear_store(to, renaming.name)) {
        return failed_with("moved, but what was kept beside an old file of its name could not be removed");
    }
    return once_placed(lock, to, renaming.name, renamed, follow(to, note, from).value_or(Problem{}));
}

std::optional<Problem> remove_with_store(const HeldDirectory &directory, const std::string &name, bool isDirectory,
                                         const std::function<bool()> &isMeant) {
    const bool stored = has_store(directory, name);
    const DirectoryLock lock(stored ? directory.fd() : -1);
    const auto found = stored ? directory.look(name) : std::nullopt;
    if (lock.is_refused() || (stored && !found) || !isMeant()) {
        errno = lock.is_refused() ? EWOULDBLOCK : found || directory.look(name) ? ESTALE : errno;
        return std::nullopt;
    }
    // Where none can be written, as on a full volume, nothing but a kill can part the two.
    const std::string note = stored ? next_private_name() + std::string(kEntryGoes) : std::string();
    const bool noted = stored && write_note(directory, note, {.inode = found->st_ino, .name = name});
    const bool gone = ::unlinkat(directory.fd(), name.c_str(), isDirectory ? AT_REMOVEDIR : 0) == 0;
    const int number = errno;
    Problem problem;
    if (gone && stored && !clear_store(directory, name)) {
        problem = failed_with("moved, but what was kept beside the source could not be removed");
    }
    if (stored && (!noted || problem.reason.empty())) {
        ::unlinkat(directory.fd(), note.c_str(), 0);
    }
    errno = number;
    return gone ? std::optional(std::move(problem)) : std::nullopt;
}

Problem problem_of_placing(int number) {
    return number == EWOULDBLOCK
               ? Problem{"another process holds the lock on its directory, and has not let go of it in time"}
               : problem_of_errno(number);
}

void discard(const HeldDirectory &directory, const std::string &made) {
    if (has_store(directory, made)) {
        (void)remove_beside(directory.below(made), directory.type());
    }
    (void)clear_away(directory.fd(), made);
}

std::vector<std::string> clear_left_overs(const HeldDirectory &directory) {
    auto [names, unknown] = left_overs_in(directory.fd());
    // What was not finished first: the file that a note tells of is gone from its private name then.
    std::set<std::string, std::less<>> kept;
    for (const std::string &name : names) {
        if (is_note(name) && !clear_note(directory, name)) {
            kept.emplace(without_suffix(name));
        }
    }
    for (const std::string &name : names) {
        if (is_trial_left_over(directory.fd(), name)) {
            (void)clear_away(directory.fd(), name);
        }
        if (without_suffix(name) != name || kept.contains(name)) {
            continue;
        }
        if (may_be_ours(directory, name)) {
            discard(directory, name);
        } else if (directory.look(name)) {
            unknown.push_back(name);
        }
    }
    if (std::ranges::any_of(names, is_departure)) {
        for (const Departure &one : departures_in(directory)) {
            if (one.is_over() && std::ranges::find(names, one.note) != names.end()) {
                ::unlinkat(directory.fd(), one.note.c_str(), 0);
            }
        }
    }
    return std::move(unknown);
}

} // namespace engine
