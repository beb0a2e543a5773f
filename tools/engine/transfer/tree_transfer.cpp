#include "tools/engine/transfer/tree_transfer.h"

#include "ea/ea.h"
#include "platform/acl.h"
#include "platform/core.h"
#include "platform/sdk.h"
#include "tools/engine/select/entry_choice.h"
#include "tools/engine/store/mac_attributes.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/transfer/placement.h"
#include "tools/engine/transfer/system_attributes.h"
#include "tools/engine/volume/fat_name.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/rename.h"

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

void TreeTransfer::run(const std::string &given, const std::string &destination) {
    const bool contents = given.ends_with("/.");
    const std::string source = given == "/." ? "/" : given.substr(0, given.size() - (contents ? 2 : 0));
    if (lies_in(destination, source)) {
        const bool move = m_move;
        failed(source, destination, {fmt::format("a directory cannot be {} into itself", move ? "moved" : "copied")});
        return;
    }
    // A slash at the end asks for what a link leads to.
    std::string from = source;
    struct stat found {};
    const bool slash = source.size() > 1 && source.ends_with('/');
    const std::string name = source.substr(0, source.size() - (slash ? 1 : 0));
    const bool link = ::lstat(name.c_str(), &found) == 0 && S_ISLNK(found.st_mode);
    if (slash || (contents && link)) {
        if (m_move && link) {
            failed(source, destination, {"is a symbolic link; to move the link give it without the slash", 0, true});
            return;
        }
        const std::unique_ptr<char, decltype(&std::free)> real(::realpath(source.c_str(), nullptr), &std::free);
        from = real == nullptr ? source : real.get();
    }
    m_top = !contents ? from.rfind('/') + 1 : from.size() + (from.ends_with('/') ? 0 : 1);
    struct stat top {};
    m_sourceDevice = ::stat(from.c_str(), &top) == 0 ? top.st_dev : 0;
    m_sourceType = VEXOGetFSType(from.c_str(), 0);
    m_sourceTraits = volume_traits(m_sourceType);
    m_sourceKeepsMac = keeps_mac_attributes(from);
    const HeldDirectory fromParent(parent_of(from)), toParent(parent_of(destination));
    if (!toParent.is_open()) {
        failed(source, destination, problem_of_making(errno));
        return;
    }
    m_files.tidy(toParent);
    m_destinationType = toParent.type();
    m_destinationTraits = volume_traits(m_destinationType);
    const auto name_of = [](const std::string &path) { return path == "/" ? "." : base_name(path); };
    // What another directory has brought there is merged with this one's.
    Made before;
    if (contents) {
        before.swap(m_made);
    }
    directory({fromParent, name_of(from)}, {toParent, name_of(destination)});
    m_made.merge(before);
}

bool TreeTransfer::failed(const std::string &source, const std::string &destination, Problem problem) {
    Outcome outcome;
    outcome.status = Status::failed;
    outcome.destination = destination;
    outcome.problem = std::move(problem);
    tell(EntryKind::directory, source, outcome);
    return false;
}

bool TreeTransfer::directory(const Place &source, Place destination) {
    if (m_observer.stopped()) {
        return false;
    }
    if (m_destinationTraits.fatNames) {
        destination.name = base_name(fat_name(destination.path()));
    }
    bool done = false;
    if (m_move && !m_selective && (!rename_whole(source, destination, done) || done)) {
        return done;
    }
    Level level{source.path(), destination.path()};
    level.outcome.destination = level.destination;
    if (!open_source(level, source)) {
        return false;
    }
    auto names = names_in(level.from.fd());
    if (!names) {
        Problem problem = problem_of_errno(errno);
        problem.withSource = true;
        return failed(level.source, level.destination, std::move(problem));
    }
    if (!make_destination(level, destination)) {
        return false;
    }
    level.hasStore = std::ranges::any_of(*names, is_store_name);
    const size_t leftOut = m_leftOut;
    if (m_selection.oneFileSystem && level.status.st.st_dev != m_sourceDevice) {
        m_leftOut += names->size();
        names->clear();
    }
    bool complete = leftOut == m_leftOut;
    descend(source, destination);
    for (const std::string &name : *names) {
        if (m_observer.stopped()) {
            complete = false;
            break;
        }
        complete = is_selected(level, name) && entry(level, name) && complete;
    }
    if (!ascend(level, source, destination)) {
        return failed(level.source, level.destination, {"a directory was moved away meanwhile; not finished"});
    }
    finish(level, source, destination);
    const bool finished = level.outcome.status == Status::done && !level.outcome.warning;
    if (m_move && complete && finished) {
        complete = remove_source(level, source);
    } else if (m_move && level.outcome.status == Status::done && (leftOut == m_leftOut || m_observer.stopped())) {
        level.outcome.status = m_observer.stopped() ? Status::cancelled : Status::skipped;
        level.outcome.problem = Problem{"the source directory stays, with what was not moved", 0, true};
    }
    tell(EntryKind::directory, level.source, level.outcome);
    return complete && level.outcome.status == Status::done;
}

// What belongs to an entry goes with that one.
bool TreeTransfer::is_selected(const Level &level, const std::string &name) {
    if (!m_selective) {
        return true;
    }
    const NameKind kind = name_kind(level.from.itself(), name, m_sourceType);
    const auto found = level.from.look(name);
    const std::string path = joined(level.source, name);
    if (kind == NameKind::store || kind == NameKind::companion || !found ||
        is_meant(m_selection, std::string_view(path).substr(m_top), level.from.below(name), *found)) {
        return true;
    }
    ++m_leftOut;
    return false;
}

void TreeTransfer::descend(const Place &source, const Place &destination) {
    constexpr int mostHeld = 6;
    if (++m_depth > mostHeld) {
        source.in.let_go();
        destination.in.let_go();
    }
}

bool TreeTransfer::ascend(const Level &level, const Place &source, const Place &destination) {
    --m_depth;
    return level.from.is_open() && level.to.is_open() && source.in.hold_again(level.from) &&
           destination.in.hold_again(level.to);
}

bool TreeTransfer::open_source(Level &level, const Place &source) {
    level.from = HeldDirectory(source.in, source.name);
    if (!level.from.is_open() ||
        VLIBCFileStat(level.from.itself().c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME,
                      &level.status) != 0) {
        return failed(level.source, level.destination, problem_of_errno(errno));
    }
    return true;
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
    switch (name_kind(level.from.itself(), name, m_sourceType)) {
    case NameKind::store:
    case NameKind::companion:
        return true; // goes with the entry that it belongs to
    case NameKind::system:
        return left(Status::skipped, is_private_name(name) ? "skipped, left over from a command that was stopped"
                                                           : "skipped, belongs to the system");
    case NameKind::stray:
        return left(Status::failed, name.starts_with("._")
                                        ? "names that begin with \"._\" are kept for metadata; left where it is"
                                        : "the name \"@eaDir\" is kept for metadata in every case; left where it is");
    default:
        break;
    }
    const auto found = level.from.look(name);
    const EntryKind kind = kind_of_entry(found);
    if (kind == EntryKind::directory) {
        const Place below{level.from, name}, made{level.to, name};
        if (may_be_whole(level, name, *found)) {
            copy_whole(below, made);
            return true; // Only a move asks.
        }
        return directory(below, made);
    }
    const Surroundings around{
        .sourceWithoutStore = !level.hasStore, .destinationNew = level.made, .from = &level.from, .to = &level.to};
    const Outcome outcome = m_files.run(source, destination, found, around);
    tell(kind, source, outcome);
    return outcome.status == Status::done && !outcome.warning;
}

// The whole tree at once, where that is possible. False: failed, and told. `done` is false too when it is to be copied.
bool TreeTransfer::rename_whole(const Place &source, const Place &destination, bool &done) {
    if (destination.in.look(destination.name) || m_sourceType != m_destinationType) {
        return true; // merged into, or refused by name; and metadata of another form are converted by a copy
    }
    if (!rename_without_replacing(source.in.fd(), source.name, destination.in.fd(), destination.name)) {
        constexpr int copied[] = {EXDEV, EEXIST, EBUSY, ENOTEMPTY};
        return std::ranges::find(copied, errno) != std::end(copied) ||
               failed(source.path(), destination.path(), problem_of_making(errno));
    }
    done = true;
    if (const auto there = destination.in.look(destination.name)) {
        m_made.insert({there->st_dev, there->st_ino});
    }
    Outcome outcome;
    outcome.destination = destination.path();
    if (Problem left = follow_store(source.in, source.name, destination.in, destination.name); !left.reason.empty()) {
        outcome.warning = std::move(left);
    }
    tell(EntryKind::directory, source.path(), outcome);
    return true;
}

bool TreeTransfer::make_destination(Level &level, const Place &destination) {
    // Nobody else gets in before the directory has its own mode; and a read-only one can be filled first.
    level.made = ::mkdirat(destination.in.fd(), destination.name.c_str(), 0700) == 0;
    if (!level.made && errno != EEXIST) {
        return failed(level.source, level.destination, problem_of_making(errno));
    }
    if (!level.made && !existing_destination(level, destination)) {
        return false;
    }
    level.to = HeldDirectory(destination.in, destination.name);
    if (!level.to.is_open() || ::fstat(level.to.fd(), &level.there) != 0) {
        return failed(level.source, level.destination, problem_of_errno(errno));
    }
    m_made.insert({level.there.st_dev, level.there.st_ino});
    if (!level.made) {
        m_files.tidy(level.to);
    } else if (has_store(destination.in, destination.name)) {
        (void)VEXOEARemove(destination.held().c_str(), m_destinationType); // of an old directory of that name
    }
    return true;
}

bool TreeTransfer::existing_destination(Level &level, const Place &destination) {
    const auto there = destination.in.look(destination.name);
    if (!there) {
        return failed(level.source, level.destination, problem_of_errno(errno));
    }
    if (!S_ISDIR(there->st_mode)) {
        return failed(level.source, level.destination,
                      {fmt::format("the destination is {}, not a directory",
                                   S_ISREG(there->st_mode) ? "a file" : kind_of(there->st_mode)),
                       kNotADirectory});
    }
    if (there->st_dev == level.status.st.st_dev && there->st_ino == level.status.st.st_ino) {
        return failed(level.source, level.destination, {"source and destination are the same directory"});
    }
    // Two names that a FAT volume makes one of, or two sources of one name.
    return !m_made.contains({there->st_dev, there->st_ino}) ||
           failed(level.source, level.destination,
                  {"the destination was just written by this command; not merged", kExists});
}

// What the destination gets once its entries are there: an entry made later would change its times again.
void TreeTransfer::finish(Level &level, const Place &source, const Place &destination) {
    const std::string from = level.from.itself(), to = level.to.itself();
    const struct stat &status = level.status.st;
    const Descriptor opened = open_directory(level.to.fd(), ".");
    const int fd = opened.get();
    if (fd < 0) {
        level.outcome.status = Status::failed;
        level.outcome.problem = problem_of_errno(errno);
        return;
    }
    std::string lost;
    const auto lose = [&lost](const std::string &what) { lost += (lost.empty() ? "" : " and ") + what; };
    copy_dos_attributes(fd, level.status.attributes);
    level.outcome.ownerLost = m_destinationTraits.owners && ::fchown(fd, status.st_uid, status.st_gid) != 0;
    level.macAttributes = level.from.keeps_mac() && has_mac_attributes(from);
    if (level.macAttributes) {
        lose("the attributes that a Mac has set");
    }
    if (VEXOACLCopy(from.c_str(), to.c_str()) < 0) {
        lose("its ACL");
    }
    (void)VEXOACLArchiveCopy(from.c_str(), to.c_str()); // for root alone
    const StoreParts store = store_parts(source.held(), m_sourceType);
    (void)VEXOEACopyInternal(source.held().c_str(), destination.held().c_str(), 0, m_move ? 1 : 0, m_sourceType,
                             m_destinationType, nullptr, nullptr, nullptr);
    if (parts_missing(store, destination.held(), m_destinationType)) {
        lose("its extended metadata");
    }
    if (const std::string missing =
            copy_system_attributes(from, to, keep_attributes_alike(m_sourceType, m_destinationType));
        !missing.empty()) {
        lose(missing);
    }
    // While its owner may write to it: the creation time may be kept in an attribute.
    if ((status.st_mode & S_IWUSR) == 0) {
        (void)::fchmod(fd, (status.st_mode | S_IWUSR) & 07777);
    }
    const timespec times[] = {status.st_atim, status.st_mtim, level.status.createTime};
    if (VLIBCFileUTime(to.c_str(), 3, times) != 0 && errno != EOPNOTSUPP) {
        lose("its times");
    }
    // Copying an ACL sets the permissions alone. FAT has its modes from the mount.
    struct stat there {};
    if (::fstat(fd, &there) == 0 && ((there.st_mode ^ status.st_mode) & 07777) != 0 &&
        ::fchmod(fd, status.st_mode & 07777) != 0 && m_destinationTraits.owners) {
        lose("its mode");
    }
    if (!lost.empty()) {
        level.outcome.warning = Problem{fmt::format("the directory is there, but without {}", lost)};
    }
}

// Everything in the source has arrived; what is left of it is the directory and what belongs to it.
bool TreeTransfer::remove_source(Level &level, const Place &source) {
    const auto now = source.in.look(source.name);
    const bool same = now && now->st_dev == level.status.st.st_dev && now->st_ino == level.status.st.st_ino;
    if (same) {
        (void)EARemoveEADir(level.from.below("@eaDir").c_str()); // where nothing is left in it
        if (::unlinkat(source.in.fd(), source.name.c_str(), AT_REMOVEDIR) == 0) {
            (void)VEXOEARemove(source.held().c_str(), m_sourceType);
            return true;
        }
    }
    level.outcome.status = Status::failed;
    level.outcome.problem = same ? problem_of_errno(errno) : Problem{"it was exchanged for something else meanwhile"};
    level.outcome.problem->reason =
        "arrived, but the source directory could not be removed: " + level.outcome.problem->reason;
    return false;
}

} // namespace engine
