#include "tools/engine/transfer/file_transfer.h"

#include "copy/copy.h"
#include "ea/ea.h"
#include "platform/sdk.h"
#include "tools/engine/store/mac_attributes.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/transfer/link_transfer.h"
#include "tools/engine/volume/fat_name.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <climits>
#include <fmt/format.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr uint32_t kOutOfMemory = 0x0200, kMissing = 0x0700, kExists = 0xA300, kOwnerLost = 0xFA00;

// The flag word of VEXOFileOpCopyFile.
namespace flag {
constexpr uint32_t failIfExists = 1, replace = 2, move = 4, keepOwner = 8, asCaller = 16, copyAcl = 32, clone = 1024;
}

} // namespace

struct FileTransfer::Attempt : FileAttempt {
    TransferObserver &observer;
    StoreParts store = {};      // what is kept for the source
    bool macAttributes = false; // which no copy carries
    bool ownerLost = false;     // told by the engine's own steps; the library tells by its code
    bool stopAnswered = false;  // the library was told to stop
    bool progressSeen = false;

    static void on_progress(void *data, int64_t bytes, int64_t) {
        auto &attempt = *static_cast<Attempt *>(data);
        attempt.progressSeen = true;
        attempt.observer.progress(bytes, false);
    }
    static int on_poll(void *data) {
        auto &attempt = *static_cast<Attempt *>(data);
        attempt.stopAnswered = attempt.stopAnswered || attempt.observer.stopped();
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
    Attempt attempt{{source, destination, entry}, m_observer};
    if (auto problem = check_source(attempt)) {
        return failure(destination, *problem);
    }
    attempt.store = store_parts(source, directory_of(m_from, source).type, around.sourceWithoutStore);
    if (auto problem = check_mac_attributes(attempt)) {
        return failure(destination, *problem);
    }
    // In a new directory the copy finds out itself what is in its way. A move may replace it without a word.
    if (!(around.destinationNew && m_options.operation == Operation::copy) && look(destination)) {
        if (auto outcome = resolve_conflict(attempt, m_options, m_observer, m_written)) {
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
        return of_source(problem_of_directory());
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

Outcome FileTransfer::transfer(Attempt &attempt) {
    const auto once = [&] { return attempt.asItIs ? carry_as_it_is(attempt) : call_library(attempt); };
    std::optional<Problem> problem = once();
    // It came into being meanwhile, or is in the way under the name that a FAT volume makes of this one.
    if (problem && problem->code == kExists && !attempt.replace) {
        if (!look(attempt.destination)) {
            attempt.destination = fat_name(attempt.destination);
        }
        if (auto outcome = resolve_conflict(attempt, m_options, m_observer, m_written)) {
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
    Attempt attempt{{source, destination}, m_observer};
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

std::optional<Problem> FileTransfer::carry_as_it_is(Attempt &attempt) const {
    const auto carry = m_options.operation == Operation::copy ? copy_link : move_as_it_is;
    return carry(attempt.source, *attempt.entry, attempt.destination, attempt.replace, attempt.ownerLost);
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

} // namespace engine
