#include "tools/engine/transfer/file_transfer.h"

#include "copy/copy.h"
#include "ea/ea.h"
#include "platform/sdk.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/mac_attributes.h"
#include "tools/engine/store/store.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/transfer/file_attempt.h"
#include "tools/engine/transfer/link_transfer.h"
#include "tools/engine/transfer/placement.h"
#include "tools/engine/transfer/system_attributes.h"
#include "tools/engine/volume/fat_name.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/rename.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>
#include <memory>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr uint32_t kOutOfMemory = 0x0200, kDestinationMissing = 0x0600, kMissing = 0x0700, kNoSpace = 0x2900,
                   kExists = 0xA300, kOwnerLost = 0xFA00;
constexpr int kNotAskedForRoom = 12; // a type of volume, to the library
constexpr int kMostNames = 1000;     // that somebody else was quicker to take

// The flag word of VEXOFileOpCopyFile.
namespace flag {
constexpr uint32_t failIfExists = 1, replace = 2, keepOwner = 8, asCaller = 16, copyAcl = 32, withoutStore = 256,
                   clone = 1024;
}

Problem of_source(Problem problem) {
    problem.withSource = true;
    return problem;
}

bool is_same_version(const struct stat &left, const struct stat &right) {
    return left.st_size == right.st_size && left.st_mtim.tv_sec == right.st_mtim.tv_sec &&
           left.st_mtim.tv_nsec == right.st_mtim.tv_nsec;
}

bool is_untouched(const struct stat &left, const struct stat &right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino && is_same_version(left, right) &&
           left.st_ctim.tv_sec == right.st_ctim.tv_sec && left.st_ctim.tv_nsec == right.st_ctim.tv_nsec;
}

// Files of the kernel say that they are empty, and are not.
bool is_really_empty(const std::string &path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    char byte = 0;
    return file.get() < 0 || ::read(file.get(), &byte, 1) <= 0;
}

// Whether the stores of two files have the same: the stream where it is copied as it is, else what can be read of both.
bool has_same_store(const std::string &source, int sourceType, const std::string &destination, int destinationType) {
    const auto in_directory = [](StoreKind kind) {
        return kind == StoreKind::ea_directory || kind == StoreKind::file_ea;
    };
    try {
        if (in_directory(store_kind(sourceType)) && in_directory(store_kind(destinationType))) {
            const auto stream = look(Store(source).stream_path("VexoEAStream"));
            const auto copy = look(Store(destination).stream_path("VexoEAStream"));
            return !stream || (copy && stream->st_size == copy->st_size);
        }
        const Store::Metadata from = Store(source).metadata(), to = Store(destination).metadata();
        return from.finderInfo == to.finderInfo && from.fork == to.fork &&
               std::ranges::all_of(from.attributes, [&](const auto &attribute) {
                   const auto there = to.attributes.find(attribute.first);
                   return there != to.attributes.end() && there->second == attribute.second;
               });
    } catch (const Failure &) {
        return false; // what cannot be read cannot be believed either
    }
}

// Whether a file with holes, for whose length there is no room, finds room for what it has.
bool fits_without_holes(const struct stat &file, const HeldDirectory &to) {
    constexpr uint64_t blockSize = 512;
    struct statfs volume {};
    const auto bytes = static_cast<uint64_t>(file.st_blocks) * blockSize;
    return bytes < static_cast<uint64_t>(file.st_size) && ::statfs(to.itself().c_str(), &volume) == 0 &&
           volume.f_bsize > 0 && bytes / static_cast<uint64_t>(volume.f_bsize) < volume.f_bavail;
}

// A file that this process has just made, given to its source's owner.
bool give_owner(int directory, const std::string &name, const struct stat &source) {
    const Descriptor file(::openat(directory, name.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat made {};
    if (file.get() < 0 || ::fstat(file.get(), &made) != 0 || !S_ISREG(made.st_mode) || made.st_nlink != 1) {
        return false;
    }
    if (made.st_uid == source.st_uid && made.st_gid == source.st_gid) {
        return true;
    }
    constexpr mode_t all = 07777;
    return made.st_uid == ::geteuid() && ::fchown(file.get(), source.st_uid, source.st_gid) == 0 &&
           ((source.st_mode & (S_ISUID | S_ISGID)) == 0 || ::fchmod(file.get(), source.st_mode & all) == 0);
}

bool may_write(int directory, const char *name, int mode) {
    return ::faccessat(directory, name, mode, AT_EACCESS) == 0;
}

} // namespace

const HeldDirectory &FileTransfer::directory_of(HeldDirectory &last, const std::string &path) {
    const std::string directory = parent_of(path);
    if (!last.is(directory)) {
        last = HeldDirectory(directory);
    }
    return last;
}

Outcome FileTransfer::run(const std::string &source, const std::string &destination, std::optional<struct stat> entry,
                          Surroundings around) {
    const HeldDirectory &from = around.from != nullptr ? *around.from : directory_of(m_from, source);
    const HeldDirectory &to = around.to != nullptr ? *around.to : directory_of(m_to, destination);
    const bool openDestination = to.is_open();
    const int number = errno;
    const std::string fixed = volume_traits(to.type()).fatNames ? fat_name(destination) : destination;
    Attempt attempt{{source, fixed, from, to, base_name(source), base_name(fixed), entry}, m_observer, around};
    if (auto problem = check_source(attempt)) {
        return failure(destination, *problem);
    }
    if (!openDestination) {
        return failure(destination, number == ENOENT ? problem_of(kDestinationMissing) : problem_of_errno(number));
    }
    attempt.sourceType =
        attempt.entry->st_dev == from.device() ? from.type() : VEXOGetFSType(from.below(attempt.sourceName).c_str(), 0);
    attempt.store = store_parts(from.below(attempt.sourceName), attempt.sourceType, around.sourceWithoutStore);
    if (auto problem = check_mac_attributes(attempt)) {
        return failure(destination, *problem);
    }
    if (!around.destinationNew) {
        tidy(to);
    }
    // In a new directory the copy finds out itself what is in its way.
    if (!around.destinationNew || m_options.operation == Operation::move) {
        if (to.look(attempt.name)) {
            if (auto outcome = resolve_conflict(attempt, m_options, m_observer, m_written)) {
                return *outcome;
            }
        } else if (errno != ENOENT) {
            return failure(attempt.destination, problem_of_errno(errno));
        }
    }
    return m_options.operation == Operation::move && shares_volume(attempt) ? rename(attempt) : copy(attempt);
}

bool FileTransfer::shares_volume(const Attempt &attempt) {
    return attempt.from.device() == attempt.to.device() && attempt.sourceType == attempt.to.type();
}

std::optional<Problem> FileTransfer::check_source(Attempt &attempt) const {
    const bool move = m_options.operation == Operation::move, copy = !move;
    if (!attempt.entry) {
        // A slash at the end asks for what it leads to, which has to be a directory.
        const bool direct = attempt.from.is_open() && !attempt.sourceName.empty();
        attempt.entry = direct ? attempt.from.look(attempt.sourceName) : look(attempt.source);
    }
    if (!attempt.entry) {
        const int number = errno;
        const auto there =
            attempt.source.ends_with('/') ? look(attempt.source.substr(0, attempt.source.size() - 1)) : std::nullopt;
        return of_source(there && number == ENOTDIR ? problem_of_slash(there->st_mode) : problem_of_errno(number));
    }
    attempt.content = S_ISLNK(attempt.entry->st_mode) ? attempt.from.look_through(attempt.sourceName) : attempt.entry;
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
        return of_source(problem_of_directory());
    }
    if (copy && !S_ISREG(mode)) {
        return of_source({fmt::format("is {}, which cannot be copied", kind_of(mode))});
    }
    return std::nullopt;
}

// A move to another volume removes the source, and with it what only that can hold.
std::optional<Problem> FileTransfer::check_mac_attributes(Attempt &attempt) const {
    attempt.macAttributes = attempt.from.keeps_mac() && has_mac_attributes(attempt.from.below(attempt.sourceName));
    if (!attempt.macAttributes || m_options.operation == Operation::copy ||
        attempt.to.device() == attempt.from.device()) {
        return std::nullopt;
    }
    return of_source(
        {"has attributes set by a Mac, which cannot go to another volume from Linux; a copy leaves them behind"});
}

void FileTransfer::tidy(const HeldDirectory &directory) {
    struct stat found {};
    if (::fstat(directory.fd(), &found) == 0 && m_tidied.insert({found.st_dev, found.st_ino}).second) {
        clear_left_overs(directory);
    }
}

// Within a volume, at once.
Outcome FileTransfer::rename(Attempt &attempt) {
    const int from = attempt.from.fd(), to = attempt.to.fd();
    for (int i = 0; i < kMostNames; ++i) {
        const bool done = attempt.replace ? ::renameat(from, attempt.sourceName.c_str(), to, attempt.name.c_str()) == 0
                                          : rename_without_replacing(from, attempt.sourceName, to, attempt.name);
        if (done) {
            const bool regular = S_ISREG(attempt.entry->st_mode);
            attempt.result = attempt.entry;
            if (regular) {
                m_observer.progress(attempt.entry->st_size, false);
            }
            // A link only with a store: the renaming marks the file that it leads to as changed.
            if (regular || attempt.store.any()) {
                attempt.note(follow_store(attempt.from, attempt.sourceName, attempt.to, attempt.name));
            }
            return arrived(attempt);
        }
        if (errno == EXDEV) {
            return copy(attempt);
        }
        if (errno != EEXIST || attempt.replace) {
            break;
        }
        if (auto outcome = resolve_conflict(attempt, m_options, m_observer, m_written)) {
            return *outcome;
        }
    }
    return failure(attempt.destination, problem_of_errno(errno));
}

Outcome FileTransfer::copy(Attempt &attempt) {
    if (m_options.operation == Operation::move && !S_ISREG(attempt.entry->st_mode) &&
        !S_ISLNK(attempt.entry->st_mode)) {
        return failure(attempt.destination,
                       {fmt::format("{} cannot be moved to another volume", kind_of(attempt.entry->st_mode))});
    }
    // What stands there may be written where its directory may not.
    const auto old = attempt.replace ? attempt.to.look(attempt.name) : std::nullopt;
    if (old && S_ISREG(old->st_mode) && !attempt.asItIs && !may_write(attempt.to.fd(), ".", W_OK | X_OK) &&
        may_write(attempt.to.fd(), attempt.name.c_str(), W_OK)) {
        return write_in_place(attempt);
    }
    std::optional<Problem> problem;
    for (int i = 0; i < kMostNames; ++i) {
        attempt.made = next_private_name();
        problem = attempt.asItIs ? make_link(attempt.from, attempt.sourceName, *attempt.entry, attempt.to, attempt.made,
                                             attempt.ownerLost)
                                 : make_file(attempt, attempt.made, false);
        if (!problem || problem->code != kExists || !attempt.to.look(attempt.made)) {
            break;
        }
    }
    if (attempt.stopAnswered) {
        discard(attempt.to, attempt.made);
        Outcome outcome;
        outcome.status = Status::cancelled;
        outcome.destination = attempt.destination;
        return outcome;
    }
    return problem ? failure(attempt.destination, *problem) : place_copy(attempt);
}

Outcome FileTransfer::place_copy(Attempt &attempt) {
    compare(attempt, attempt.made);
    attempt.result = attempt.to.look(attempt.made);
    const bool stores = attempt.store.any() || !attempt.around.destinationNew || !attempt.around.sourceWithoutStore;
    for (int i = 0; i < kMostNames; ++i) {
        auto left = place({attempt.to, attempt.made, attempt.name, attempt.replace, stores});
        if (left) {
            attempt.note(std::move(*left));
            return arrived(attempt);
        }
        if (errno != EEXIST || attempt.replace) {
            break;
        }
        if (auto outcome = resolve_conflict(attempt, m_options, m_observer, m_written)) {
            discard(attempt.to, attempt.made);
            return *outcome;
        }
    }
    const Problem problem = problem_of_errno(errno);
    discard(attempt.to, attempt.made);
    return failure(attempt.destination, problem);
}

// The old way: what fails from here on has cost the old content.
Outcome FileTransfer::write_in_place(Attempt &attempt) {
    if (auto problem = make_file(attempt, attempt.name, true)) {
        return failure(attempt.destination, *problem);
    }
    compare(attempt, attempt.name);
    attempt.result = attempt.to.look(attempt.name);
    attempt.note({"written in place, since nothing can be made in its directory"});
    return arrived(attempt);
}

// A file with everything that is kept for it, under whatever name.
std::optional<Problem> FileTransfer::make_file(Attempt &attempt, const std::string &name, bool replace) {
    const bool follow = m_options.operation == Operation::copy && S_ISLNK(attempt.entry->st_mode);
    attempt.file = Descriptor(
        ::openat(attempt.from.fd(), attempt.sourceName.c_str(), O_PATH | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW)));
    struct stat before {
    }, after{};
    if (attempt.file.get() < 0 || ::fstat(attempt.file.get(), &before) != 0) {
        return of_source(problem_of_errno(errno));
    }
    if (!S_ISREG(before.st_mode) || !same(attempt.content, before)) {
        return of_source({"was exchanged for something else meanwhile; not copied"});
    }
    attempt.content = before;
    if (auto problem = call_library(attempt, name, replace)) {
        return problem;
    }
    if (attempt.stopAnswered) {
        return std::nullopt;
    }
    attempt.changed = ::fstat(attempt.file.get(), &after) != 0 || !is_untouched(before, after);
    if (before.st_size == 0 && !attempt.changed && !is_really_empty(attempt.opened())) {
        if (!replace) {
            discard(attempt.to, name);
        }
        return of_source({"says that it is empty, and is not; not copied"});
    }
    if (replace && has_store(attempt.to, name)) {
        (void)VEXOEARemove(attempt.to.below(name).c_str(), attempt.to.type());
    }
    carry_metadata(attempt, name);
    // Carrying a store may bring that of the source up to date.
    if (::fstat(attempt.file.get(), &after) != 0 || !is_same_version(before, after)) {
        attempt.changed = true;
    }
    attempt.content = after;
    return std::nullopt;
}

// Of the library's entry points this one has everything at once: callbacks with user data, the request for a clone, and
// the flag that sets owner and times as this user does and tells when the owner was not kept. VEXOFileCopy_r makes no
// clones, VEXOFileReflinkCopy has bare callbacks and tries to become root for the times.
std::optional<Problem> FileTransfer::call_library(Attempt &attempt, const std::string &name, bool replace) {
    // A new record for each file: it remembers the types of the two volumes, and the next file may lie on others.
    const std::unique_ptr<VEXOCopyArgs, decltype(&VEXOCopyArgsFree)> record(VEXOCopyArgsAlloc(), &VEXOCopyArgsFree);
    if (record == nullptr) {
        return problem_of(kOutOfMemory);
    }
    record->fsTypeSrc = attempt.sourceType;
    record->fsTypeDst = attempt.to.type();
    VEXOCopyArgsSetFnSetProgress(record.get(), &Attempt::on_progress, &attempt);
    VEXOCopyArgsSetFnIsCancel(record.get(), &Attempt::on_poll, &attempt);
    VLIBCErrSetEx(0, "", 0);
    uint32_t flags = flag::keepOwner | flag::asCaller | flag::copyAcl | flag::withoutStore;
    flags |= replace ? flag::replace : flag::failIfExists;
    // Moved files share their extents wherever that can be.
    flags |= m_options.clone || m_options.operation == Operation::move ? flag::clone : 0;
    if (VEXOFileOpCopyFile(attempt.opened().c_str(), attempt.to.below(name).c_str(), flags, record.get()) == 0) {
        return std::nullopt;
    }
    const Problem problem = problem_of(VLIBCErrGet());
    // The library asks for room for the whole length. It asks no volume of this type, and gives no owners there.
    if (problem.code == kNoSpace && !replace && fits_without_holes(*attempt.content, attempt.to)) {
        record->fsTypeDst = kNotAskedForRoom;
        VLIBCErrSetEx(0, "", 0);
        if (VEXOFileOpCopyFile(attempt.opened().c_str(), attempt.to.below(name).c_str(), flags, record.get()) != 0) {
            return problem_of(VLIBCErrGet());
        }
        attempt.ownerLost =
            volume_traits(attempt.to.type()).owners && !give_owner(attempt.to.fd(), name, *attempt.content);
        return std::nullopt;
    }
    attempt.ownerLost = problem.code == kOwnerLost;
    return attempt.ownerLost ? std::nullopt : std::optional(problem);
}

// What the library cannot carry it takes for no failure; that it is not there is seen afterwards.
void FileTransfer::carry_metadata(Attempt &attempt, const std::string &name) {
    const int everything = m_options.operation == Operation::move ? 1 : 0;
    (void)VEXOEACopyInternal(attempt.from.below(attempt.sourceName).c_str(), attempt.to.below(name).c_str(), 0,
                             everything, attempt.sourceType, attempt.to.type(), nullptr, nullptr, nullptr);
    attempt.missingAttributes = copy_system_attributes(attempt.opened(), attempt.to.below(name),
                                                       keep_attributes_alike(attempt.sourceType, attempt.to.type()));
}

// What the copy lacks of its source, as far as that can be told without reading data.
void FileTransfer::compare(Attempt &attempt, const std::string &name) {
    if (attempt.asItIs) {
        return;
    }
    if (parts_missing(attempt.store, attempt.to.below(name), attempt.to.type())) {
        attempt.lose(fmt::format("the extended metadata that is kept beside it{}",
                                 ::geteuid() == 0 ? "" : ", since making its directory needs root"));
    } else if (attempt.store.any() && !has_same_store(attempt.source, attempt.sourceType,
                                                      joined(attempt.to.path(), name), attempt.to.type())) {
        attempt.lose("some of the extended metadata that is kept beside it");
    }
    if (attempt.macAttributes) {
        attempt.lose("the attributes that a Mac has set");
    }
    if (!attempt.missingAttributes.empty()) {
        attempt.lose(attempt.missingAttributes);
    }
}

// Tells of an entry that has its name.
Outcome FileTransfer::arrived(Attempt &attempt) {
    const bool move = m_options.operation == Operation::move;
    Outcome outcome;
    outcome.destination = attempt.destination;
    if (attempt.result) {
        m_written.insert({attempt.result->st_dev, attempt.result->st_ino});
    }
    outcome.bytes = attempt.content && !attempt.asItIs ? attempt.content->st_size : 0;
    outcome.ownerLost = attempt.ownerLost;
    outcome.cloned = m_options.clone && !attempt.progressSeen && outcome.bytes > 0;
    if (!attempt.lost.empty()) {
        attempt.note({fmt::format("copied without {}{}", attempt.lost, move ? "; the source stays" : "")});
    } else if (attempt.changed) {
        attempt.note({move ? "changed while it was copied; the source stays" : "changed while it was copied"});
    } else if (move && !attempt.made.empty()) {
        remove_source(attempt, outcome);
    }
    if (!attempt.told.reason.empty()) {
        outcome.warning = attempt.told;
    }
    return outcome;
}

// The copy is whole. What goes is what was copied, and nothing that came in its place meanwhile.
void FileTransfer::remove_source(Attempt &attempt, Outcome &outcome) {
    const auto now = attempt.from.look(attempt.sourceName);
    const struct stat &copied = attempt.asItIs ? *attempt.entry : *attempt.content;
    if (!now || !is_untouched(copied, *now)) {
        attempt.note({"copied, but the source was changed or exchanged meanwhile, and stays"});
        return;
    }
    if (::unlinkat(attempt.from.fd(), attempt.sourceName.c_str(), 0) != 0) {
        outcome = failure(outcome.destination, {"copied, but the source could not be removed and is still there"});
        return;
    }
    if (has_store(attempt.from, attempt.sourceName) &&
        VEXOEARemove(attempt.from.below(attempt.sourceName).c_str(), attempt.sourceType) != 0) {
        attempt.note({"moved, but what was kept beside the source could not be removed", VLIBCErrGet()});
    }
}

std::optional<Problem> FileTransfer::left_behind(const std::string &source, const std::string &destination) {
    const HeldDirectory &from = directory_of(m_from, source), &to = directory_of(m_to, destination);
    Attempt attempt{{source, destination, from, to, base_name(source), base_name(destination)}, m_observer, {}};
    attempt.sourceType = from.type();
    attempt.store = store_parts(source, from.type());
    attempt.macAttributes = from.keeps_mac() && has_mac_attributes(source);
    attempt.missingAttributes =
        copy_system_attributes(source, destination, keep_attributes_alike(from.type(), to.type()));
    compare(attempt, attempt.name);
    return attempt.lost.empty() ? std::nullopt : std::optional(Problem{"copied without " + attempt.lost});
}

void FileTransfer::remember(const std::string &destination) {
    if (const auto there = look(destination)) {
        m_written.insert({there->st_dev, there->st_ino});
    }
}

} // namespace engine
