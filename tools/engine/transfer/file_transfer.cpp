#include "tools/engine/transfer/file_transfer.h"

#include "copy/copy.h"
#include "ea/ea.h"
#include "platform/sdk.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/store/mac_attributes.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {
namespace {

constexpr uint32_t kOutOfMemory = 0x0200, kMissing = 0x0700, kNoFreeName = 0x0800, kOther = 0x8000,
                   kIsDirectory = 0xA200, kExists = 0xA300, kOwnerLost = 0xFA00;

// The flag word of VEXOFileOpCopyFile.
namespace flag {
constexpr uint32_t failIfExists = 1, replace = 2, move = 4, keepOwner = 8, asCaller = 16, copyAcl = 32, clone = 1024;
}

struct ErrnoCode {
    int number;
    uint32_t code;
};
constexpr ErrnoCode kErrnoCodes[] = {
    {ENOENT, kMissing}, {ENOTDIR, kMissing},    {EACCES, 0x0300},  {EPERM, 0x0300},  {EROFS, 0x0300},
    {EISDIR, 0xA200},   {ENAMETOOLONG, 0xC300}, {ENOSPC, 0x2900},  {EDQUOT, 0x2400}, {EIO, 0x6C00},
    {ENXIO, 0x6C00},    {EHOSTDOWN, 0x1100},    {EEXIST, kExists},
};

std::optional<struct stat> look(const std::string &path) {
    struct stat found {};
    return ::lstat(path.c_str(), &found) == 0 ? std::optional(found) : std::nullopt;
}

std::optional<struct stat> look_through(const std::string &path) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 ? std::optional(found) : std::nullopt;
}

bool same(const std::optional<struct stat> &left, const std::optional<struct stat> &right) {
    return left && right && left->st_dev == right->st_dev && left->st_ino == right->st_ino;
}

Problem same_file() {
    return {"source and destination are the same file"};
}

Outcome failure(const std::string &destination, Problem problem) {
    Outcome outcome;
    outcome.status = Status::failed;
    outcome.destination = destination;
    outcome.problem = std::move(problem);
    return outcome;
}

// The types of volumes that the library makes symbolic links on.
bool takes_links(const std::string &directory) {
    constexpr int types[] = {1, 2, 3, 5, 6, 7};
    return std::ranges::find(types, VEXOGetFSType(directory.c_str(), 0)) != std::end(types);
}

// Makes the link under a name of its own and renames it, so that what stood there goes only when the new one is whole.
int replace_by_link(const char *target, const std::string &destination) {
    const std::string parent = parent_of(destination);
    const std::string made = fmt::format("{}/.vexofileop-{}", parent == "/" ? "" : parent, ::getpid());
    if (::symlink(target, made.c_str()) != 0) {
        return -1;
    }
    if (::rename(made.c_str(), destination.c_str()) == 0) {
        return 0;
    }
    const int number = errno;
    ::unlink(made.c_str());
    errno = number;
    return -1;
}

} // namespace

Problem problem_of(uint32_t code) {
    return {std::string(reason_of(code)), code};
}

Problem problem_of_errno(int number) {
    for (const ErrnoCode &row : kErrnoCodes) {
        if (row.number == number) {
            return problem_of(row.code);
        }
    }
    return {std::strerror(number), kOther};
}

const char *kind_of(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFDIR:
        return "a directory";
    case S_IFLNK:
        return "a symbolic link";
    case S_IFIFO:
        return "a named pipe";
    case S_IFSOCK:
        return "a socket";
    case S_IFBLK:
    case S_IFCHR:
        return "a device";
    default:
        return "no regular file";
    }
}

std::string fat_name(const std::string &path) {
    char fixed[PATH_MAX] = "";
    return VEXOStrReplaceFATReservedChar(path.c_str(), fixed, sizeof fixed) == 0 ? fixed : path;
}

bool finish_link(const struct stat &source, const std::string &destination) {
    const bool owned = ::lchown(destination.c_str(), source.st_uid, source.st_gid) == 0;
    const timespec times[] = {source.st_atim, source.st_mtim};
    ::utimensat(AT_FDCWD, destination.c_str(), times, AT_SYMLINK_NOFOLLOW); // Not every volume keeps a link's times.
    return owned;
}

struct FileTransfer::Attempt {
    const TransferHooks &hooks;
    std::string source, destination;
    std::optional<struct stat> entry = {};   // the source's own entry: a symbolic link is a link
    std::optional<struct stat> content = {}; // what it leads to
    bool asItIs = false;                     // the entry itself is moved or made anew; no file is opened
    StoreParts store = {};                   // what is kept for the source
    bool macAttributes = false;              // which no copy carries
    bool replace = false;
    bool ownerLost = false;    // told by the tool's own steps; the library tells by its code
    bool stopAnswered = false; // the library was told to stop
    bool progressSeen = false;

    static void on_progress(void *data, int64_t bytes, int64_t) {
        auto &attempt = *static_cast<Attempt *>(data);
        attempt.progressSeen = true;
        attempt.hooks.progress(bytes);
    }
    static int on_poll(void *data) {
        auto &attempt = *static_cast<Attempt *>(data);
        attempt.stopAnswered = attempt.stopAnswered || attempt.hooks.stopped();
        return attempt.stopAnswered ? 1 : 0;
    }
    static int on_conflict(void *data, const char *destination, char *out, int size) {
        const int result = Default_GenerateNewName(destination, out, size);
        if (result == 0) {
            static_cast<Attempt *>(data)->destination = out;
        }
        return result;
    }
};

const FileTransfer::Directory &FileTransfer::directory_of(Directory &last, const std::string &path) {
    const std::string directory = parent_of(path);
    if (last.path != directory) {
        const auto found = look_through(directory);
        last = {directory, found ? found->st_dev : 0, VEXOGetFSType(directory.c_str(), 0),
                keeps_mac_attributes(directory)};
    }
    return last;
}

Outcome FileTransfer::run(const std::string &source, const std::string &destination, std::optional<struct stat> entry,
                          Surroundings around) {
    Attempt attempt{m_hooks, source, destination, entry};
    if (auto problem = check_source(attempt)) {
        return failure(destination, *problem);
    }
    attempt.store = store_parts(source, directory_of(m_from, source).type, around.sourceWithoutStore);
    if (auto problem = check_mac_attributes(attempt)) {
        return failure(destination, *problem);
    }
    // In a new directory the copy finds out itself what is in its way. A move may replace it without a word.
    if (!(around.destinationNew && m_options.operation == Operation::copy) && look(destination)) {
        if (auto outcome = resolve_conflict(attempt)) {
            return *outcome;
        }
    }
    return transfer(attempt);
}

std::optional<Problem> FileTransfer::check_source(Attempt &attempt) const {
    const bool move = m_options.operation == Operation::move, copy = !move;
    const auto of_source = [](Problem problem) {
        problem.withSource = true;
        return problem;
    };
    if (!attempt.entry) {
        attempt.entry = look(attempt.source);
    }
    if (!attempt.entry) {
        return of_source(problem_of_errno(errno));
    }
    attempt.content = S_ISLNK(attempt.entry->st_mode) ? look_through(attempt.source) : attempt.entry;
    attempt.asItIs = move ? !S_ISREG(attempt.entry->st_mode) : m_options.links && S_ISLNK(attempt.entry->st_mode);
    if (copy && attempt.asItIs) {
        return std::nullopt;
    }
    if (copy && !attempt.content) {
        return of_source(errno == ENOENT ? Problem{"is a symbolic link that leads nowhere", kMissing}
                                         : problem_of_errno(errno));
    }
    const mode_t mode = move ? attempt.entry->st_mode : attempt.content->st_mode;
    // Opening a pipe would wait for its other end. A move leaves what is no file as it is and only renames it.
    if (S_ISDIR(mode)) {
        return of_source({"is a directory; -r copies it with everything in it"});
    }
    if (copy && !S_ISREG(mode)) {
        return of_source({fmt::format("is {}, which cannot be copied", kind_of(mode))});
    }
    return std::nullopt;
}

// A move to another volume removes the source, and with it what only that can hold.
std::optional<Problem> FileTransfer::check_mac_attributes(Attempt &attempt) {
    const Directory &from = directory_of(m_from, attempt.source);
    attempt.macAttributes = from.mac && has_mac_attributes(attempt.source);
    if (!attempt.macAttributes || m_options.operation == Operation::copy ||
        directory_of(m_to, attempt.destination).device == from.device) {
        return std::nullopt;
    }
    return Problem{
        "has attributes set by a Mac, which cannot go to another volume from Linux; a copy leaves them behind", 0,
        true};
}

// For a destination that exists: an outcome where that is the end of it.
std::optional<Outcome> FileTransfer::resolve_conflict(Attempt &attempt) const {
    // Two links that lead to one file are two all the same; a link and that file are not to replace one another.
    const bool itself =
        same(attempt.entry, look(attempt.destination)) ||
        same(attempt.content, attempt.asItIs ? look(attempt.destination) : look_through(attempt.destination));
    const bool move = m_options.operation == Operation::move;
    if (m_options.conflict == Conflict::keep_both) {
        if (itself && move) {
            return failure(attempt.destination, same_file());
        }
        // A move and a link ask no rename callback, and a copy of a file beside itself never gets that far.
        const auto problem = itself || move || attempt.asItIs ? choose_free_name(attempt) : std::nullopt;
        return problem ? std::optional(failure(attempt.destination, *problem)) : std::nullopt;
    }
    if (itself) {
        return failure(attempt.destination, same_file());
    }
    if (m_options.conflict != Conflict::skip) {
        if (auto problem = check_destination(attempt)) {
            return failure(attempt.destination, *problem);
        }
    }
    return skip_or_replace(attempt);
}

// Whether the existing destination may be replaced at all.
std::optional<Problem> FileTransfer::check_destination(const Attempt &attempt) const {
    const bool link = attempt.asItIs && S_ISLNK(attempt.entry->st_mode);
    const auto there = link ? look(attempt.destination) : look_through(attempt.destination);
    if (there && S_ISDIR(there->st_mode)) {
        return problem_of(kIsDirectory);
    }
    if (m_options.conflict == Conflict::fail) {
        return problem_of(kExists);
    }
    if (!there) {
        return Problem{"the destination is a symbolic link that leads nowhere; not replaced", kExists};
    }
    if (!S_ISREG(there->st_mode) && !(link && S_ISLNK(there->st_mode))) {
        return Problem{fmt::format("the destination is {}; not replaced", kind_of(there->st_mode)), kExists};
    }
    if (m_written.contains({there->st_dev, there->st_ino})) {
        return Problem{"the destination was just written by this command; not replaced", kExists};
    }
    return std::nullopt;
}

// What the user wants with a destination that exists. Nothing: go on, with attempt.replace as it is now.
std::optional<Outcome> FileTransfer::skip_or_replace(Attempt &attempt) const {
    switch (m_options.conflict) {
    case Conflict::replace:
        attempt.replace = true;
        return std::nullopt;
    case Conflict::ask:
        attempt.replace = m_hooks.mayReplace(attempt.destination);
        if (attempt.replace) {
            return std::nullopt;
        }
        [[fallthrough]];
    case Conflict::skip: {
        Outcome outcome;
        outcome.status = m_hooks.stopped() ? Status::cancelled : Status::skipped;
        outcome.destination = attempt.destination;
        return outcome;
    }
    default:
        return failure(attempt.destination, problem_of(kExists));
    }
}

std::optional<Problem> FileTransfer::choose_free_name(Attempt &attempt) const {
    char name[PATH_MAX] = "";
    // The generator follows links: a name that is a link to nothing is not free either.
    if (Default_GenerateNewName(attempt.destination.c_str(), name, sizeof name) != 0 || look(name)) {
        return problem_of(kNoFreeName);
    }
    attempt.destination = name;
    return std::nullopt;
}

Outcome FileTransfer::transfer(Attempt &attempt) {
    const bool copy = m_options.operation == Operation::copy;
    const auto once = [&] {
        return !attempt.asItIs ? call_library(attempt) : copy ? copy_link(attempt) : move_as_it_is(attempt);
    };
    std::optional<Problem> problem = once();
    // It came into being meanwhile, or is in the way under the name that a FAT volume makes of this one.
    if (problem && problem->code == kExists && !attempt.replace) {
        if (!look(attempt.destination)) {
            attempt.destination = fat_name(attempt.destination);
        }
        if (auto outcome = resolve_conflict(attempt)) {
            return *outcome;
        }
        problem = once();
    }
    if (attempt.stopAnswered) {
        Outcome outcome;
        outcome.status = Status::cancelled;
        outcome.destination = attempt.destination;
        if (m_options.operation == Operation::move && look(attempt.destination)) {
            outcome.problem = Problem{"stopped when the copy was complete; the source is still there as well"};
        }
        return outcome;
    }
    const bool ownerLost = attempt.ownerLost || (problem && problem->code == kOwnerLost);
    // A rename that was followed by a failure has moved the file all the same.
    const bool moved = m_options.operation == Operation::move && !look(attempt.source) &&
                       same(attempt.entry, look(attempt.destination));
    return !problem || ownerLost || moved ? arrived(attempt, ownerLost) : failure(attempt.destination, *problem);
}

// Believes a success only when it can be seen.
Outcome FileTransfer::arrived(const Attempt &attempt, bool ownerLost) {
    Outcome outcome;
    outcome.destination = attempt.destination;
    auto there = look(outcome.destination);
    if (!there) {
        outcome.destination = fat_name(attempt.destination);
        there = look(outcome.destination);
    }
    if (!there) {
        return failure(attempt.destination, {"reported as done, but the destination is not there"});
    }
    if (m_options.operation == Operation::copy || look(attempt.source)) {
        const auto reached = S_ISLNK(there->st_mode) ? look_through(outcome.destination) : there;
        if (attempt.asItIs ? same(attempt.entry, there) : same(attempt.content, reached)) {
            return failure(outcome.destination, same_file());
        }
        if (m_options.operation == Operation::move) {
            return failure(outcome.destination, {"copied, but the source could not be removed and is still there"});
        }
    }
    m_written.insert({there->st_dev, there->st_ino});
    outcome.bytes = attempt.content && !attempt.asItIs ? attempt.content->st_size : 0;
    outcome.ownerLost = ownerLost;
    outcome.cloned = m_options.clone && !attempt.progressSeen && outcome.bytes > 0;
    if (attempt.asItIs && attempt.store.any() && m_options.operation == Operation::move) {
        // Only with a store: the renaming marks the file that a link leads to as changed.
        (void)VEXOEARename(attempt.source.c_str(), outcome.destination.c_str(), -1, 0);
    }
    outcome.warning = missing_metadata(attempt, outcome.destination);
    return outcome;
}

std::optional<Problem> FileTransfer::left_behind(const std::string &source, const std::string &destination) {
    Attempt attempt{m_hooks, source, destination};
    const Directory &from = directory_of(m_from, source);
    attempt.store = store_parts(source, from.type);
    attempt.macAttributes = from.mac && has_mac_attributes(source);
    return missing_metadata(attempt, destination);
}

void FileTransfer::remember(const std::string &destination) {
    if (const auto there = look(destination)) {
        m_written.insert({there->st_dev, there->st_ino});
    }
}

std::optional<Problem> FileTransfer::missing_metadata(const Attempt &attempt, const std::string &destination) {
    std::optional<Problem> missing;
    if (m_options.operation == Operation::move || !attempt.asItIs) {
        missing = missing_parts(attempt, destination);
    }
    if (attempt.macAttributes && m_options.operation == Operation::copy && !missing) {
        missing = Problem{"copied without the attributes that a Mac has set"};
    }
    return missing;
}

// What the library could not carry of the store, which it takes for no failure.
std::optional<Problem> FileTransfer::missing_parts(const Attempt &attempt, const std::string &destination) {
    if (!attempt.store.any() || !parts_missing(attempt.store, destination, directory_of(m_to, destination).type)) {
        return std::nullopt;
    }
    const char *const what = m_options.operation == Operation::copy
                                 ? "copied without the extended metadata that is kept beside it"
                                 : "moved, but the extended metadata kept beside it stayed where it was";
    return Problem{fmt::format("{}{}", what, ::geteuid() == 0 ? "" : ", since making its directory needs root")};
}

// Links, pipes, sockets and devices have no content of their own to copy: the library, which would open them for a move
// to another volume, is not asked.
std::optional<Problem> FileTransfer::move_as_it_is(Attempt &attempt) const {
    const char *const source = attempt.source.c_str(), *const destination = attempt.destination.c_str();
    const unsigned noReplace = attempt.replace ? 0 : RENAME_NOREPLACE;
    int result = ::renameat2(AT_FDCWD, source, AT_FDCWD, destination, noReplace);
    if (result != 0 && errno == EINVAL && noReplace != 0) {
        // Not every file system knows the flag.
        if (look(attempt.destination)) {
            return problem_of(kExists);
        }
        result = std::rename(source, destination);
    }
    if (result == 0) {
        return std::nullopt;
    }
    if (errno != EXDEV) {
        return problem_of_errno(errno);
    }
    if (!S_ISLNK(attempt.entry->st_mode)) {
        return Problem{fmt::format("{} cannot be moved to another volume", kind_of(attempt.entry->st_mode))};
    }
    auto problem = copy_link(attempt);
    if (!problem) {
        ::unlink(source); // That it is still there is seen afterwards.
    }
    return problem;
}

// A link made anew, with the target as it is written, owner and times.
std::optional<Problem> FileTransfer::copy_link(Attempt &attempt) const {
    const char *const destination = attempt.destination.c_str();
    if (!takes_links(parent_of(attempt.destination))) {
        return Problem{"is a symbolic link, which the destination's volume cannot hold", 0, true};
    }
    char target[PATH_MAX] = "";
    if (::readlink(attempt.source.c_str(), target, sizeof target - 1) < 0) {
        return problem_of_errno(errno);
    }
    if ((attempt.replace ? replace_by_link(target, attempt.destination) : ::symlink(target, destination)) != 0) {
        return problem_of_errno(errno);
    }
    attempt.ownerLost = !finish_link(*attempt.entry, attempt.destination);
    return std::nullopt;
}

// Of the library's entry points this one has everything at once: callbacks with user data, the request for a clone, and
// the flag that sets owner and times as this user does and tells when the owner was not kept. VEXOFileCopy_r makes no
// clones, VEXOFileReflinkCopy has bare callbacks and tries to become root for the times.
std::optional<Problem> FileTransfer::call_library(Attempt &attempt) {
    // A new record for each file: it remembers the types of the two volumes, and the next file may lie on others.
    const std::unique_ptr<VEXOCopyArgs, decltype(&VEXOCopyArgsFree)> record(VEXOCopyArgsAlloc(), &VEXOCopyArgsFree);
    if (record == nullptr) {
        return problem_of(kOutOfMemory);
    }
    if (const Directory &from = directory_of(m_from, attempt.source); attempt.entry->st_dev == from.device) {
        record->fsTypeSrc = from.type;
    }
    record->fsTypeDst = directory_of(m_to, attempt.destination).type;
    VEXOCopyArgsSetFnSetProgress(record.get(), &Attempt::on_progress, &attempt);
    VEXOCopyArgsSetFnIsCancel(record.get(), &Attempt::on_poll, &attempt);
    if (m_options.conflict == Conflict::keep_both) {
        VEXOCopyArgsSetFnRename(record.get(), &Attempt::on_conflict, &attempt);
    }
    VLIBCErrSetEx(0, "", 0);
    if (VEXOFileOpCopyFile(attempt.source.c_str(), attempt.destination.c_str(), flags_for(attempt), record.get()) ==
        0) {
        return std::nullopt;
    }
    return problem_of(VLIBCErrGet());
}

uint32_t FileTransfer::flags_for(const Attempt &attempt) const {
    uint32_t flags = flag::keepOwner | flag::asCaller | flag::copyAcl;
    // "Leave it and succeed" is never asked of the library: its success would not tell which of the two happened.
    flags |= attempt.replace ? flag::replace : flag::failIfExists;
    flags |= m_options.operation == Operation::move ? flag::move : 0;
    flags |= m_options.clone ? flag::clone : 0;
    return flags;
}

} // namespace tool
