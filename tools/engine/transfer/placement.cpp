#include "tools/engine/transfer/placement.h"

#include "ea/ea.h"
#include "platform/core.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/rename.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

// A note of a placement, by what is done next once the file has its name: the old store goes, then the new one follows.
constexpr std::string_view kOldStoreGoes = ".clear", kNewStoreFollows = ".store";

struct Note {
    ino_t inode = 0; // of the file that is placed: where it is tells how far things are
    std::string name = {};
};

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
    const std::string text = fmt::format("{}\n{}", note.inode, note.name);
    errno = ENOSPC; // of a write that ends early
    return ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// Only one that we have written ourselves: in a directory of somebody else a name proves nothing.
std::optional<Note> read_note(const HeldDirectory &directory, const std::string &path) {
    const Descriptor file(::openat(directory.fd(), path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat found {};
    char text[NAME_MAX + 32];
    if (file.get() < 0 || ::fstat(file.get(), &found) != 0 || !S_ISREG(found.st_mode) || found.st_nlink != 1 ||
        found.st_uid != ::geteuid()) {
        return std::nullopt;
    }
    const ssize_t size = ::read(file.get(), text, sizeof text);
    const std::string_view all(text, size < 0 ? 0 : static_cast<size_t>(size));
    Note note;
    const auto [end, error] = std::from_chars(all.data(), all.data() + all.size(), note.inode);
    const auto used = static_cast<size_t>(end - all.data());
    if (error != std::errc() || used >= all.size() || all[used] != '\n') {
        return std::nullopt;
    }
    note.name = all.substr(used + 1);
    const bool plain = !note.name.empty() && note.name != "." && note.name != ".." &&
                       note.name.find('/') == std::string::npos && note.name.find('\0') == std::string::npos;
    return plain ? std::optional(note) : std::nullopt;
}

// A part of a store that has no other place than its file's new name asks for. One that is not there is none.
bool rename_part(int directory, const char *before, const char *now) {
    return ::renameat(directory, base_name(before).c_str(), directory, base_name(now).c_str()) == 0 || errno == ENOENT;
}

// What is kept beside an entry under its new name. The library's own renaming marks the entry as changed, too.
bool rename_parts(const HeldDirectory &directory, const std::string &before, const std::string &now) {
    const std::string from = directory.below(before), to = directory.below(now);
    char made[PATH_MAX] = "", name[PATH_MAX] = "";
    if (store_kind(directory.type()) == StoreKind::apple_double && VEXOEAADPath(from.c_str(), made, sizeof made) == 0 &&
        VEXOEAADPath(to.c_str(), name, sizeof name) == 0 && !rename_part(directory.fd(), made, name)) {
        return false;
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

// Looks again afterwards: what the library could not look at it takes for nothing to remove.
bool clear_store(const HeldDirectory &directory, const std::string &name) {
    return !has_store(directory, name) ||
           (VEXOEARemove(directory.below(name).c_str(), directory.type()) == 0 && !has_store(directory, name));
}

// The steps behind a file that has its name. Each can be done again.
std::optional<Problem> finish_store(const HeldDirectory &directory, const std::string &made, const std::string &name) {
    const std::string note = made + std::string(kOldStoreGoes), next = made + std::string(kNewStoreFollows);
    const auto failed = [](const char *what) { return Problem{what, VLIBCErrGet()}; };
    if (lies_there(directory.below(note))) {
        // Only where there is something: a removal marks the entry as changed.
        if (!clear_store(directory, name)) {
            return failed("it is there, but what was kept beside an old file of its name could not be removed");
        }
        if (::renameat(directory.fd(), note.c_str(), directory.fd(), next.c_str()) != 0) {
            return problem_of_errno(errno);
        }
    }
    if (!rename_parts(directory, made, name)) {
        return problem_of_errno(errno);
    }
    // Asked twice, since a note that stays is read by whoever comes next.
    if (::unlinkat(directory.fd(), next.c_str(), 0) != 0) {
        ::unlinkat(directory.fd(), next.c_str(), 0);
    }
    return Problem{};
}

bool rename_made(const Placement &placement) {
    const int directory = placement.directory.fd();
    return placement.replace ? ::renameat(directory, placement.made.c_str(), directory, placement.name.c_str()) == 0
                             : rename_without_replacing(directory, placement.made, directory, placement.name);
}

void clear_note(const HeldDirectory &directory, const std::string &path) {
    const std::string made(without_suffix(path));
    const auto note = read_note(directory, path);
    const auto there = note ? directory.look(note->name) : std::nullopt;
    if (there && there->st_ino == note->inode && !directory.look(made)) {
        (void)finish_store(directory, made, note->name);
    } else {
        ::unlinkat(directory.fd(), path.c_str(), 0);
        discard(directory, made);
    }
}

} // namespace

bool has_store(const HeldDirectory &directory, const std::string &name) {
    char place[PATH_MAX] = "";
    const std::string path = directory.below(name);
    switch (store_kind(directory.type())) {
    case StoreKind::apple_double:
        if (lies_there(VEXOEAADPath(path.c_str(), place, sizeof place), place)) {
            return true;
        }
        break;
    case StoreKind::ea_directory:
    case StoreKind::file_ea:
        break;
    default:
        return false;
    }
    return lies_there(directory.below("@eaDir")) &&
           (lies_there(VEXOEAPathNoADFS(1, path.c_str(), "VexoEAStream", place, sizeof place), place) ||
            lies_there(VEXOEAPathNoADFS(1, path.c_str(), "VexoResource", place, sizeof place), place) ||
            lies_there(VEXOEADirPath(0, path.c_str(), place, sizeof place), place));
}

std::optional<Problem> place(const Placement &placement) {
    const HeldDirectory &directory = placement.directory;
    if (!placement.withStore || (!has_store(directory, placement.made) && !has_store(directory, placement.name))) {
        return rename_made(placement) ? std::optional(Problem{}) : std::nullopt;
    }
    const std::string note = placement.made + std::string(kOldStoreGoes);
    const auto made = directory.look(placement.made);
    if (!made || !write_note(directory, note, {made->st_ino, placement.name}) || !rename_made(placement)) {
        const int number = errno;
        ::unlinkat(directory.fd(), note.c_str(), 0);
        errno = number;
        return std::nullopt;
    }
    return finish_store(directory, placement.made, placement.name);
}

Problem follow_store(const HeldDirectory &from, const std::string &before, const HeldDirectory &to,
                     const std::string &name) {
    if (!clear_store(to, name)) {
        return {"moved, but what was kept beside an old file of its name could not be removed", VLIBCErrGet()};
    }
    return VEXOEARename(from.below(before).c_str(), to.below(name).c_str(), to.type(), 0) == 0
               ? Problem{}
               : Problem{"moved, but its extended metadata could not follow", VLIBCErrGet()};
}

void discard(const HeldDirectory &directory, const std::string &made) {
    if (has_store(directory, made)) {
        (void)VEXOEARemove(directory.below(made).c_str(), directory.type());
    }
    (void)remove_left_over(directory.fd(), made);
}

void clear_left_overs(const HeldDirectory &directory) {
    const auto names = left_overs_in(directory.fd());
    // What was not finished first: the file that a note tells of is gone from its private name then.
    for (const std::string &name : names) {
        if (name.ends_with(kOldStoreGoes) || name.ends_with(kNewStoreFollows)) {
            clear_note(directory, name);
        }
    }
    for (const std::string &name : names) {
        if (without_suffix(name) == name) {
            discard(directory, name);
        }
    }
}

} // namespace engine
