#include "tools/engine/transfer/tree_transfer.h"

#include "ea/ea.h"
#include "platform/acl.h"
#include "platform/core.h"
#include "platform/sdk.h"
#include "tools/engine/store/mac_attributes.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/volume/fat_name.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

#pragma weak VLIBCKernelAttrFcntl

namespace engine {
namespace {

constexpr uint32_t kDestinationMissing = 0x0600, kReadOnly = 0x8400, kNotADirectory = 0xA000, kExists = 0xA300;

Problem problem_of_making(int number) {
    return number == ENOENT  ? problem_of(kDestinationMissing)
           : number == EROFS ? problem_of(kReadOnly)
                             : problem_of_errno(number);
}

EntryKind kind_of_entry(const std::optional<struct stat> &found) {
    return found ? entry_kind(found->st_mode) : EntryKind::other;
}

// The appliance kernel's interface, or what the platform has in its place.
int request_attribute(int fd, int command) {
    return VLIBCKernelAttrFcntl != nullptr ? VLIBCKernelAttrFcntl(fd, command) : ::fcntl(fd, command);
}

void copy_dos_attributes(int fd, uint32_t attributes) {
    constexpr struct {
        uint32_t bit;
        int command;
    } rows[] = {{VLIBC_ATTR_ARCHIVE, 0x202}, {VLIBC_ATTR_HIDDEN, 0x203}, {VLIBC_ATTR_SYSTEM, 0x204}};
    for (const auto &row : rows) {
        if ((attributes & row.bit) != 0) {
            (void)request_attribute(fd, row.command); // A volume without such bits loses them, as with files.
        }
    }
}

} // namespace

void TreeTransfer::run(const std::string &source, const std::string &destination) {
    if (lies_in(destination, source)) {
        const bool move = m_move;
        failed(source, destination, {fmt::format("a directory cannot be {} into itself", move ? "moved" : "copied")});
        return;
    }
    // A slash at the end asks for what a link leads to.
    std::string from = source;
    if (source.ends_with('/')) {
        struct stat found {};
        const std::string name = source.substr(0, source.size() - 1);
        if (m_move && ::lstat(name.c_str(), &found) == 0 && S_ISLNK(found.st_mode)) {
            failed(source, destination, {"is a symbolic link; to move the link give it without the slash", 0, true});
            return;
        }
        const std::unique_ptr<char, decltype(&std::free)> real(::realpath(source.c_str(), nullptr), &std::free);
        from = real == nullptr ? source : real.get();
    }
    struct stat top {};
    m_sourceDevice = ::stat(from.c_str(), &top) == 0 ? top.st_dev : 0;
    m_sourceType = VEXOGetFSType(from.c_str(), 0);
    m_sourceTraits = volume_traits(m_sourceType);
    m_sourceKeepsMac = keeps_mac_attributes(from);
    m_destinationType = VEXOGetFSType(parent_of(destination).c_str(), 0);
    m_destinationTraits = volume_traits(m_destinationType);
    directory(from, destination);
}

bool TreeTransfer::failed(const std::string &source, const std::string &destination, Problem problem) {
    Outcome outcome;
    outcome.status = Status::failed;
    outcome.destination = destination;
    outcome.problem = std::move(problem);
    tell(EntryKind::directory, source, outcome);
    return false;
}

bool TreeTransfer::directory(const std::string &source, std::string destination) {
    if (m_observer.stopped()) {
        return false;
    }
    if (m_destinationTraits.fatNames) {
        destination = fat_name(destination);
    }
    bool done = false;
    if (m_move && (!rename_whole(source, destination, done) || done)) {
        return done;
    }
    Level level{source, destination};
    level.outcome.destination = destination;
    if (VLIBCFileStat(source.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME,
                      &level.status) != 0) {
        return failed(source, destination, problem_of_errno(errno));
    }
    const auto names = names_in(source);
    if (!names) {
        Problem problem = problem_of_errno(errno);
        problem.withSource = true;
        return failed(source, destination, std::move(problem));
    }
    if (!make_destination(level)) {
        return false;
    }
    level.hasStore = std::ranges::any_of(*names, is_store_name);
    bool complete = true;
    for (const std::string &name : *names) {
        if (m_observer.stopped()) {
            complete = false;
            break;
        }
        complete = entry(level, name) && complete;
    }
    finish(level);
    if (m_move && complete && !level.outcome.warning) {
        complete = remove_source(level);
    } else if (m_move && level.outcome.status == Status::done) {
        level.outcome.status = m_observer.stopped() ? Status::cancelled : Status::skipped;
        level.outcome.problem = Problem{"the source directory stays, with what was not moved", 0, true};
    }
    tell(EntryKind::directory, source, level.outcome);
    return complete && level.outcome.status == Status::done;
}

bool TreeTransfer::entry(const Level &level, const std::string &name) {
    const std::string source = joined(level.source, name), destination = joined(level.destination, name);
    const auto left = [&](Status status, const char *why) {
        Outcome outcome;
        outcome.status = status;
        outcome.destination = destination;
        outcome.problem = Problem{why, 0, true};
        tell(EntryKind::other, source, outcome);
        return false;
    };
    switch (name_kind(level.source, name, m_sourceType)) {
    case NameKind::store:
    case NameKind::companion:
        return true; // goes with the entry that it belongs to
    case NameKind::system:
        return left(Status::skipped, "skipped, belongs to the system");
    case NameKind::stray:
        return left(Status::failed, "names that begin with \"._\" are kept for metadata; left where it is");
    default:
        break;
    }
    struct stat status {};
    const auto found = ::lstat(source.c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
    const EntryKind kind = kind_of_entry(found);
    if (kind == EntryKind::directory && may_be_whole(level, status)) {
        copy_whole(source, destination);
        return true; // Only a move asks.
    }
    if (kind == EntryKind::directory) {
        return directory(source, destination);
    }
    const Surroundings around{.sourceWithoutStore = !level.hasStore, .destinationNew = level.made};
    const Outcome outcome = m_files.run(source, destination, found, around);
    tell(kind, source, outcome);
    return outcome.status == Status::done && !outcome.warning;
}

// The whole tree at once, where that is possible. False: failed, and told. `done` is false too when it is to be copied.
bool TreeTransfer::rename_whole(const std::string &source, const std::string &destination, bool &done) {
    struct stat found {};
    if (::lstat(destination.c_str(), &found) == 0 || m_sourceType != m_destinationType) {
        return true; // merged into, or refused by name; and metadata of another form are converted by a copy
    }
    int result = ::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, destination.c_str(), RENAME_NOREPLACE);
    if (result != 0 && errno == EINVAL) {
        result = ::rename(source.c_str(), destination.c_str()); // Not every file system knows the flag.
    }
    if (result != 0) {
        constexpr int copied[] = {EXDEV, EEXIST, EBUSY, ENOTEMPTY};
        return std::ranges::find(copied, errno) != std::end(copied) ||
               failed(source, destination, problem_of_making(errno));
    }
    done = true;
    Outcome outcome;
    outcome.destination = destination;
    if (VEXOEARename(source.c_str(), destination.c_str(), m_sourceType, 0) != 0) {
        outcome.warning = Problem{"moved, but its extended metadata could not follow", VLIBCErrGet()};
    }
    tell(EntryKind::directory, source, outcome);
    return true;
}

bool TreeTransfer::make_destination(Level &level) {
    // Nobody else gets in before the directory has its own mode; and a read-only one can be filled first.
    level.made = ::mkdir(level.destination.c_str(), 0700) == 0;
    if (!level.made && errno != EEXIST) {
        return failed(level.source, level.destination, problem_of_making(errno));
    }
    if (!level.made && !existing_destination(level)) {
        return false;
    }
    if (::lstat(level.destination.c_str(), &level.there) == 0) {
        m_made.insert({level.there.st_dev, level.there.st_ino});
    }
    return true;
}

bool TreeTransfer::existing_destination(Level &level) {
    struct stat there {};
    if (::lstat(level.destination.c_str(), &there) != 0) {
        return failed(level.source, level.destination, problem_of_errno(errno));
    }
    if (!S_ISDIR(there.st_mode)) {
        return failed(level.source, level.destination,
                      {fmt::format("the destination is {}, not a directory",
                                   S_ISREG(there.st_mode) ? "a file" : kind_of(there.st_mode)),
                       kNotADirectory});
    }
    if (there.st_dev == level.status.st.st_dev && there.st_ino == level.status.st.st_ino) {
        return failed(level.source, level.destination, {"source and destination are the same directory"});
    }
    // Two names that a FAT volume makes one of, or two sources of one name.
    return !m_made.contains({there.st_dev, there.st_ino}) ||
           failed(level.source, level.destination,
                  {"the destination was just written by this command; not merged", kExists});
}

// What the destination gets once its entries are there: an entry made later would change its times again.
void TreeTransfer::finish(Level &level) {
    const char *const source = level.source.c_str(), *const destination = level.destination.c_str();
    const struct stat &status = level.status.st;
    const Descriptor opened = open_directory(AT_FDCWD, level.destination);
    const int fd = opened.get();
    if (fd < 0) {
        level.outcome.status = Status::failed;
        level.outcome.problem = problem_of_errno(errno);
        return;
    }
    copy_dos_attributes(fd, level.status.attributes);
    level.outcome.ownerLost = m_destinationTraits.owners && ::fchown(fd, status.st_uid, status.st_gid) != 0;
    if (level.made) {
        (void)::fchmod(fd, status.st_mode & 07777); // FAT has its modes from the mount.
    }
    const StoreParts store = store_parts(level.source, m_sourceType);
    level.macAttributes = keeps_mac_attributes(level.source) && has_mac_attributes(level.source);
    std::string lost = level.macAttributes ? "the attributes that a Mac has set" : "";
    const auto lose = [&lost](const char *what) { lost += (lost.empty() ? "" : " and ") + std::string(what); };
    if (VEXOACLCopy(source, destination) < 0) {
        lose("its ACL");
    }
    (void)VEXOACLArchiveCopy(source, destination); // for root alone
    (void)VEXOEACopyInternal(source, destination, m_move ? 1 : 0, 0, m_sourceType, m_destinationType, nullptr, nullptr,
                             nullptr);
    if (parts_missing(store, level.destination, m_destinationType)) {
        lose("its extended metadata");
    }
    if (!lost.empty()) {
        level.outcome.warning = Problem{fmt::format("the directory is there, but without {}", lost)};
    }
    const timespec times[] = {status.st_atim, status.st_mtim, level.status.createTime};
    (void)VLIBCFileUTime(destination, 3, times);
}

// Everything in the source has arrived; what is left of it is the directory and what belongs to it.
bool TreeTransfer::remove_source(Level &level) {
    if (level.macAttributes) {
        level.outcome.status = Status::skipped;
        level.outcome.problem = Problem{"the source directory stays, for the attributes that a Mac has set", 0, true};
        return false;
    }
    VEXOEARemoveDanglingEADir(level.source.c_str());
    if (::rmdir(level.source.c_str()) == 0) {
        (void)VEXOEARemove(level.source.c_str(), m_sourceType);
        return true;
    }
    level.outcome.status = Status::failed;
    level.outcome.problem = problem_of_errno(errno);
    level.outcome.problem->reason =
        "arrived, but the source directory could not be removed: " + level.outcome.problem->reason;
    return false;
}

} // namespace engine
