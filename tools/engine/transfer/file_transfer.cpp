#include "tools/engine/transfer/file_transfer.h"

#include "copy/copy.h"
#include "ea/ea.h"
#include "platform/sdk.h"
#include "tools/engine/compare/granted_mode.h"
#include "tools/engine/compare/witness.h"
#include "tools/engine/losses/wording.h"
#include "tools/engine/naming/name_list.h"
#include "tools/engine/report/codes.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store_directory.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/transfer/completion.h"
#include "tools/engine/transfer/file_attempt.h"
#include "tools/engine/transfer/kept_transfer.h"
#include "tools/engine/transfer/link_transfer.h"
#include "tools/engine/transfer/name_refusal.h"
#include "tools/engine/transfer/placement.h"
#include "tools/engine/transfer/special_file.h"
#include "tools/engine/volume/fat_name.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/patience.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/rename.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <memory>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

namespace engine {
namespace {

constexpr int kExtended = 2, kBtrfs = 3; // types of volumes, to the library
constexpr int kNotAskedForRoom = 12;     // a type of volume, to the library
constexpr int kMostNames = 1000;         // that somebody else was quicker to take

// The flag word of VEXOFileOpCopyFile.
namespace flag {
constexpr uint32_t failIfExists = 1, replace = 2, keepOwner = 8, asCaller = 16, copyAcl = 32, withoutStore = 256,
                   clone = 1024;
}

bool is_same_version(const struct stat &left, const struct stat &right) {
    return left.st_size == right.st_size && left.st_mtim.tv_sec == right.st_mtim.tv_sec &&
           left.st_mtim.tv_nsec == right.st_mtim.tv_nsec;
}

bool is_untouched(const struct stat &left, const struct stat &right) {
    return left.st_dev == right.st_dev && left.st_ino == right.st_ino && is_same_version(left, right) &&
           left.st_ctim.tv_sec == right.st_ctim.tv_sec && left.st_ctim.tv_nsec == right.st_ctim.tv_nsec;
}

bool can_be_read(const std::string &path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    char byte = 0;
    return file.get() >= 0 && ::read(file.get(), &byte, 1) >= 0;
}

// Files of the kernel say that they are empty, and are not.
bool is_really_empty(const std::string &path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    char byte = 0;
    return file.get() < 0 || ::read(file.get(), &byte, 1) <= 0;
}

// Something that could not be looked at, since somebody else has it: the code is in the words.
bool is_store_locked(const Loss &loss) {
    return loss.detail.find(code_text(kLocked)) != std::string::npos;
}

// How many names a file has is told where all of them are known.
bool is_own_loss(const Loss &loss) {
    return loss.cls != LossClass::hard_link;
}

bool is_within_limit(const std::string &name, const HeldDirectory &to) {
    struct statvfs volume {};
    return ::fstatvfs(to.fd(), &volume) == 0 && name.size() <= volume.f_namemax;
}

// What a failure is called among the losses.
std::optional<LossClass> class_of(const Problem &problem, const std::optional<struct stat> &entry,
                                  const HeldDirectory &to, const std::string &name) {
    if (problem.code == kNameTooLong) {
        // Of a link that may be what it leads to.
        const bool target = entry && S_ISLNK(entry->st_mode) && is_within_limit(name, to);
        return target ? LossClass::symbolic_link : LossClass::name_too_long;
    }
    const bool large = problem.code == kFileTooLarge || problem.code == kTooLargeForFat || problem.number == EFBIG;
    return large ? std::optional(LossClass::file_too_large) : std::nullopt;
}

// In the words of a plan and of a comparison, which do not try.
std::string words_of(LossClass cls, const Problem &problem, const std::optional<struct stat> &entry,
                     const HeldDirectory &to, const std::string &name) {
    switch (cls) {
    case LossClass::symbolic_link:
        return link_refused_text(ENAMETOOLONG);
    case LossClass::name_too_long:
        return is_within_limit(name, to) ? problem.reason : too_long_text(name.size());
    case LossClass::file_too_large:
        return entry ? too_large_text(static_cast<uint64_t>(entry->st_size), to.facts().largestFile) : problem.reason;
    default:
        return problem.reason;
    }
}

// Behind the largest size of a volume the kernel cannot set a position: that is what fails then.
std::optional<Loss> refusal_of_holes(const Problem &problem, const std::optional<struct stat> &entry,
                                     const HeldDirectory &to) {
    const bool may = (problem.code == kSeekFailed || problem.code == kFileOperation) && entry &&
                     S_ISREG(entry->st_mode) && !volume_traits(to.type()).fatNames;
    return may ? refusal_of_size(to.fd(), entry->st_size) : std::nullopt;
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

// Exactly this one: a volume may take others for it.
bool has_name(const HeldDirectory &directory, const std::string &name) {
    const Descriptor opened = open_directory(directory.fd(), ".");
    const auto names = names_in(opened.get());
    return names && std::ranges::find(*names, name) != names->end();
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
    m_observer.begins(source);
    LinkLease lease(m_ledger, m_linked);
    if (entry && around.from != nullptr) {
        entry = leased(lease, *around.from, base_name(source), entry);
    }
    for (int tries = 0;;) {
        bool begun = false;
        Outcome outcome = run_once(source, destination, entry, around, !m_patience.has_more(tries), begun);
        if (begun || outcome.status != Status::failed || !outcome.problem ||
            !m_patience.again(source, destination, *outcome.problem, tries)) {
            return outcome;
        }
        // What was opened by its path may be another one by now.
        m_from = HeldDirectory();
        m_to = HeldDirectory();
    }
}

std::optional<struct stat> FileTransfer::leased(LinkLease &lease, const HeldDirectory &from, const std::string &name,
                                                const std::optional<struct stat> &entry) const {
    const bool move = m_options.operation == Operation::move;
    const bool followed = m_ledger != nullptr && !move && !m_options.links && S_ISLNK(entry->st_mode);
    const auto content = followed ? from.look_through(name) : entry;
    return content && lease.take(*content, move) ? from.look(name) : entry;
}

Outcome FileTransfer::run_once(const std::string &source, const std::string &destination,
                               const std::optional<struct stat> &entry, const Surroundings &around, bool final,
                               bool &begun) {
    const HeldDirectory &from = around.from != nullptr ? *around.from : directory_of(m_from, source);
    const HeldDirectory &to = around.to != nullptr ? *around.to : directory_of(m_to, destination);
    const bool openDestination = to.is_open();
    const int number = errno;
    const std::string fixed = volume_traits(to.type()).fatNames ? fat_name(destination) : destination;
    Attempt attempt{{source, fixed, from, to, base_name(source), base_name(fixed), entry}, m_observer, around, m_pace};
    if (m_options.reversibleNames && is_name_list(attempt.name)) {
        Outcome refused = failure(fixed, {kNameOfList, 0, true});
        refused.losses.push_back({LossClass::not_carried, kNameOfList});
        return settled(std::move(refused));
    }
    attempt.losses = around.known;
    if (base_name(fixed) != base_name(destination)) {
        attempt.losses.push_back(
            {LossClass::name_changed, fmt::format("is {} in the copy", displayed(base_name(fixed)))});
    }
    attempt.final = final;
    begins_in(to);
    Outcome outcome = attempted(attempt, destination, openDestination ? 0 : number);
    begun = attempt.begun;
    if (outcome.status == Status::failed && outcome.losses.empty()) {
        const auto &meant = attempt.asItIs ? attempt.entry : attempt.content;
        const auto taker = meant && outcome.problem->code == kExists
                               ? m_written.unseen_taker(attempt.sourceName, to, attempt.name)
                               : std::nullopt;
        if (taker) {
            outcome = clash(outcome.destination, meant->st_mode, taker->st_mode);
        } else if (const auto cls = class_of(*outcome.problem, meant, to, attempt.name)) {
            outcome.losses.push_back({*cls, words_of(*cls, *outcome.problem, meant, to, attempt.name)});
        } else if (auto tooLarge = refusal_of_holes(*outcome.problem, meant, to)) {
            outcome.losses.push_back(std::move(*tooLarge));
        } else if (attempt.file.get() >= 0 && !attempt.stopAnswered && !can_be_read(attempt.opened())) {
            outcome.losses.push_back({LossClass::unreadable, outcome.problem->reason});
        } else if (meant && openDestination && !attempt.stopAnswered &&
                   (S_ISLNK(meant->st_mode) || !to.look(attempt.name))) {
            if (auto refusal = refusal_of_entry(to.fd(), attempt.name, meant->st_mode)) {
                if (outcome.problem->code == kMissing) { // so a driver calls a name that it does not take
                    outcome.problem = Problem{refusal->detail};
                }
                outcome.losses.push_back(std::move(*refusal));
            }
        }
    }
    if (outcome.status == Status::done || outcome.same) {
        add_kept_name(to.fd(), attempt.name, outcome.losses);
    }
    return settled(std::move(outcome));
}

Outcome FileTransfer::settled(Outcome outcome) const {
    if (outcome.status == Status::failed && !outcome.losses.empty() && accepts(outcome)) {
        outcome.status = Status::skipped;
    }
    return outcome;
}

Outcome FileTransfer::attempted(Attempt &attempt, const std::string &destination, int destinationError) {
    const HeldDirectory &from = attempt.from, &to = attempt.to;
    const Surroundings &around = attempt.around;
    if (auto problem = check_source(attempt)) {
        if (!attempt.entry && destinationError == 0) {
            tidy(to); // an earlier run may have moved it, and been stopped before its store followed
            if (m_options.operation == Operation::move && from.is_open()) {
                tidy(from); // or was removed
            }
        }
        Outcome outcome = failure(destination, *problem);
        if (attempt.special) {
            outcome.losses.push_back({LossClass::special_file, problem->reason});
        }
        return outcome;
    }
    prove_claim(attempt);
    if (destinationError != 0) {
        return failure(destination, destinationError == ENOENT ? problem_of(kDestinationMissing)
                                                               : problem_of_errno(destinationError));
    }
    attempt.sourceType =
        attempt.entry->st_dev == from.device() ? from.type() : VEXOGetFSType(from.below(attempt.sourceName).c_str(), 0);
    // Of a file that is copied and has nothing beside it one list tells, once it is open, whether it has anything at
    // all.
    attempt.storeUnknown = around.sourceWithoutStore && m_options.operation == Operation::copy && !attempt.asItIs &&
                           S_ISREG(attempt.entry->st_mode) && store_kind(attempt.sourceType) != StoreKind::apple_double;
    if (!attempt.storeUnknown) {
        look_for_store(attempt);
    }
    if (!around.destinationNew) {
        tidy(to);
    }
    if (m_options.operation == Operation::move && around.from == nullptr) {
        tidy(from); // of a tree the walk does that
    }
    // In a new directory the copy finds out itself what is in its way.
    if (!around.destinationNew || m_options.operation == Operation::move) {
        if (to.look(attempt.name)) {
            if (auto outcome = pass_over(attempt)) {
                return *outcome;
            }
            if (auto outcome = keep_together(attempt)) {
                return *outcome;
            }
            if (auto outcome = resolve_conflict(attempt, m_options, m_observer, m_written)) {
                return *outcome;
            }
            look_for_same(attempt);
        } else if (errno != ENOENT) {
            return failure(attempt.destination, problem_of_errno(errno));
        }
    }
    return m_options.operation == Operation::move && shares_volume(attempt) ? rename(attempt) : copy(attempt);
}

// Nothing: what stands there is not the same, or it is for others to say. A source that is to go is read, and goes only
// when its content is there too.
std::optional<Outcome> FileTransfer::pass_over(Attempt &attempt) {
    const bool move = m_options.operation == Operation::move;
    const auto there = attempt.to.look(attempt.name);
    const bool update = m_options.conflict == Conflict::update;
    if ((!update && !(m_options.conflict == Conflict::replace && m_backups.wanted())) || !there ||
        is_one_entry(attempt, *there, m_options) || (move && shares_volume(attempt))) {
        return std::nullopt;
    }
    // Of what is to be replaced in any case no time proves the content.
    const bool maybe = update || differences_of_same(attempt, false, m_options.accepted);
    return maybe ? pass_over(attempt, m_options.checksum || move || !update) : std::nullopt;
}

// A run after one that was stopped finds what that has brought. To keep it as a backup would cost the backup of what it
// has replaced, which is the only old version there is.
void FileTransfer::look_for_same(Attempt &attempt) {
    const LossSet all = *loss_set("all");
    if (m_backups.wanted() && attempt.replace && differences_of_same(attempt, false, all)) {
        attempt.thereLacks = differences_of_same(attempt, true, all);
    }
}

// Whether what stands there has all that the copy beside it has, which may lack the same of its source.
bool FileTransfer::is_as_good(const Attempt &attempt) {
    const auto lacks = [&](const Loss &one) {
        return one.cls == LossClass::hard_link || std::ranges::any_of(attempt.losses, [&](const Loss &other) {
                   return other.cls == one.cls && (other.detail == one.detail || one.cls == LossClass::creation_time);
               });
    };
    return attempt.thereLacks && std::ranges::all_of(*attempt.thereLacks, lacks);
}

std::optional<Outcome> FileTransfer::pass_over(Attempt &attempt, bool data) {
    const bool move = m_options.operation == Operation::move;
    const auto there = attempt.to.look(attempt.name);
    const bool alone = gets_into_the_file(attempt.from, attempt.sourceName, attempt.to.type());
    const bool linkable = m_options.hardLinks && S_ISREG(attempt.entry->st_mode) && !alone;
    const bool linked =
        there && linkable && m_linked.is_there(*attempt.entry, there) && has_name(attempt.to, attempt.name);
    if (!there || (!linked && (m_written.holds(*there) || m_written.contains(*there, attempt.to, attempt.name)))) {
        return std::nullopt;
    }
    auto differences = differences_of_same(attempt, data, m_options.accepted);
    if (!differences || (!linked && linkable && takes_link(attempt))) {
        return std::nullopt;
    }
    std::ranges::copy_if(*differences, std::back_inserter(attempt.losses), is_own_loss);
    attempt.result = there;
    Outcome outcome;
    if (move) {
        outcome = arrived(attempt);
    } else {
        outcome.status = Status::skipped;
        outcome.destination = attempt.destination;
        outcome.losses = attempt.losses;
        m_written.add(*there, attempt.sourceName, attempt.to, attempt.name);
        m_linked.add(attempt.asItIs ? *attempt.entry : *attempt.content);
        note_name(attempt.asItIs ? *attempt.entry : *attempt.content, attempt.source, attempt.destination, there);
        if (m_options.hardLinks && S_ISREG(attempt.entry->st_mode) && attempt.content->st_nlink > 1) {
            m_linked.placed(*attempt.content, attempt.to, attempt.name, alone);
        }
        prove(attempt, outcome);
    }
    outcome.same = true;
    m_observer.progress(attempt.asItIs ? 0 : attempt.content->st_size, false);
    return outcome;
}

// Whether it could become another name of what this run has made of its file. A volume without hard links says so when
// it is asked for one.
bool FileTransfer::takes_link(Attempt &attempt) {
    const std::string made = next_private_name();
    if (!m_linked.can_link(*attempt.entry, attempt.to) || !m_linked.link(*attempt.entry, attempt.to, made)) {
        return false;
    }
    attempt.note(clear_away(attempt.to.fd(), made).value_or(Problem{}));
    return true;
}

// Of what may differ; nothing: it is not the same.
std::optional<std::vector<Loss>> FileTransfer::differences_of_same(Attempt &attempt, bool data, LossSet accepted) {
    const bool follow = !attempt.asItIs && S_ISLNK(attempt.entry->st_mode);
    const auto &known = attempt.asItIs ? attempt.entry : attempt.content;
    attempt.file = Descriptor(
        ::openat(attempt.from.fd(), attempt.sourceName.c_str(), O_PATH | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW)));
    struct stat before {};
    if (attempt.file.get() < 0 || ::fstat(attempt.file.get(), &before) != 0 || !same(known, before)) {
        return std::nullopt;
    }
    (attempt.asItIs ? attempt.entry : attempt.content) = before;
    if (follow) {
        find_real_place(attempt);
        if (!attempt.real.is_open()) {
            return std::nullopt;
        }
    }
    if (witnesses()) {
        attempt.kept.emplace(attempt.from, attempt.sourceName);
    }
    if (data && m_options.verify && !attempt.asItIs && let_go(attempt.to, attempt.name)) {
        return std::nullopt;
    }
    std::vector<Loss> differences = compare_entries(attempt.where().side_now(attempt.what(), attempt.sourceType),
                                                    attempt.to.side_now(attempt.name), compare_options(data));
    const bool changed = std::ranges::any_of(differences, [&](const Loss &one) { return is_to_update(one, accepted); });
    return changed || m_observer.stopped() ? std::nullopt : std::optional(std::move(differences));
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
        return of_source(problem_of_look(attempt.source, errno));
    }
    attempt.content = S_ISLNK(attempt.entry->st_mode) ? attempt.from.look_through(attempt.sourceName) : attempt.entry;
    attempt.asItIs = move ? !S_ISREG(attempt.entry->st_mode) : m_options.links && S_ISLNK(attempt.entry->st_mode);
    attempt.asItIs = attempt.asItIs || (m_options.specials && is_special(attempt.entry->st_mode));
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
        attempt.special = true;
        return of_source({fmt::format("is {}, which cannot be copied", kind_of(mode))});
    }
    return std::nullopt;
}

void FileTransfer::tidy(const HeldDirectory &directory) {
    struct stat found {};
    if (::fstat(directory.fd(), &found) == 0 && m_tidied.insert({found.st_dev, found.st_ino}).second) {
        if (const auto unknown = clear_left_overs(directory); !unknown.empty()) {
            m_observer.stays(directory.path(), unknown);
        }
        const std::string backups = m_backups.directory_for(directory.path());
        if (const HeldDirectory held = backups.empty() ? HeldDirectory() : HeldDirectory(backups); held.is_open()) {
            tidy(held); // what was kept there may not have all of its store yet
        }
    }
}

// Within a volume, at once.
Outcome FileTransfer::rename(Attempt &attempt) {
    const bool regular = S_ISREG(attempt.entry->st_mode);
    attempt.old = attempt.replace ? attempt.to.look(attempt.name) : std::nullopt;
    for (int i = 0; i < kMostNames; ++i) {
        if (auto problem = back_up(attempt)) {
            return failure(attempt.destination, *problem);
        }
        // A link only with a store: the renaming marks the file that it leads to as changed.
        auto left = rename_with_store({attempt.from, attempt.sourceName, attempt.to, attempt.name,
                                       attempt.replace && !attempt.backedUp, regular || attempt.store.any()});
        if (left) {
            attempt.begun = true;
            attempt.result = attempt.entry;
            attempt.renamed = true;
            if (regular) {
                m_observer.progress(attempt.entry->st_size, false);
            }
            attempt.note(std::move(*left));
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
    return not_placed(attempt, errno);
}

// What stood there, before another one takes its name.
std::optional<Problem> FileTransfer::back_up(Attempt &attempt) {
    if (!m_backups.wanted() || !attempt.replace || attempt.backedUp || is_as_good(attempt)) {
        return std::nullopt;
    }
    if (!attempt.to.look(attempt.name)) {
        return errno == ENOENT ? std::nullopt : std::optional(problem_of_errno(errno));
    }
    for (const auto &source : {attempt.entry, attempt.content}) {
        if (auto problem = m_backups.refusal(attempt.to, attempt.destination, source, &m_written)) {
            return problem;
        }
    }
    auto problem = m_backups.keep(attempt.to, attempt.destination, attempt.name);
    attempt.backedUp = attempt.begun = !problem;
    return problem;
}

// An entry that has not got its name: what stood there gets it back.
Outcome FileTransfer::not_placed(Attempt &attempt, int number) {
    Problem problem = problem_of_placing(number);
    if (attempt.backedUp) {
        attempt.begun = !m_backups.put_back(attempt.to, attempt.destination, attempt.name);
        problem.reason += !attempt.begun ? ""
                                         : fmt::format("; what stood there is {} now",
                                                       displayed(m_backups.place_of(attempt.destination)));
    }
    return failure(attempt.destination, std::move(problem));
}

Outcome FileTransfer::copy(Attempt &attempt) {
    if (m_options.operation == Operation::move && !S_ISREG(attempt.entry->st_mode) &&
        !S_ISLNK(attempt.entry->st_mode) && !m_options.specials) {
        Outcome outcome =
            failure(attempt.destination,
                    {fmt::format("{} cannot be moved to another volume", kind_of(attempt.entry->st_mode))});
        outcome.losses.push_back({LossClass::special_file, outcome.problem->reason});
        return outcome;
    }
    // What stands there may be written where its directory may not.
    attempt.old = attempt.replace ? attempt.to.look(attempt.name) : std::nullopt;
    const auto &old = attempt.old;
    const bool forced = old && !m_options.inPlace && !may_write(attempt.to.fd(), ".", W_OK | X_OK);
    // Another name of what this run has made: it becomes a file of its own, or that would be lost.
    const bool written = old && m_written.holds(*old);
    if (old && S_ISREG(old->st_mode) && !attempt.asItIs && (forced || (m_options.inPlace && !written)) &&
        may_write(attempt.to.fd(), attempt.name.c_str(), W_OK)) {
        if (forced && written) {
            return failure(attempt.destination,
                           {"the destination was just written by this command; not replaced", kExists});
        }
        auto refusal = forced ? refusal_of_forced(m_options) : std::nullopt;
        return refusal ? failure(attempt.destination, std::move(*refusal)) : write_in_place(attempt, *old);
    }
    if (attempt.to.facts().appendOnly) {
        return failure(attempt.destination, problem_of_append_only());
    }
    std::optional<Problem> problem;
    std::vector<Loss> refused;
    for (int i = 0; i < kMostNames; ++i) {
        attempt.made = next_private_name();
        problem = attempt.asItIs ? make_anew(attempt, refused) : link_or_make(attempt);
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
    if (problem) {
        Outcome outcome = failure(attempt.destination, *problem);
        outcome.losses = std::move(refused);
        return outcome;
    }
    return place_copy(attempt);
}

// A link or a special file, which nobody opens. What the volume cannot hold is a loss.
std::optional<Problem> FileTransfer::make_anew(Attempt &attempt, std::vector<Loss> &losses) {
    losses.clear();
    if (is_special(attempt.entry->st_mode)) {
        auto refusal =
            make_special(attempt.from.fd(), attempt.sourceName, *attempt.entry, attempt.to.fd(), attempt.made);
        if (!refusal) {
            return std::nullopt;
        }
        losses = std::move(refusal->losses);
        return refusal->problem;
    }
    auto problem = make_link(attempt.from, attempt.sourceName, *attempt.entry, attempt.to, attempt.made);
    if (problem && !volume_traits(attempt.to.type()).links) {
        losses.push_back({LossClass::symbolic_link, problem->reason});
    }
    return problem;
}

// What is known not to be whole takes nobody's place; it may be at rest the next time.
std::optional<Problem> FileTransfer::refused(Attempt &attempt) const {
    return attempt.changed && attempt.old
               ? Problem{.reason = "changed while it was copied; not replaced", .withSource = true, .number = EAGAIN}
               : verify(attempt, attempt.made);
}

Outcome FileTransfer::place_copy(Attempt &attempt) {
    compare(attempt, attempt.made);
    const bool locked = attempt.storeLocked || std::ranges::any_of(attempt.losses, is_store_locked);
    if (locked && !attempt.final && !attempt.losses.empty()) {
        discard(attempt.to, attempt.made);
        return failure(attempt.destination, problem_of(kLocked));
    }
    if (auto problem = refused(attempt)) {
        discard(attempt.to, attempt.made);
        Outcome outcome = failure(attempt.destination, *problem);
        outcome.losses.push_back({LossClass::data, problem->reason});
        return outcome;
    }
    if (attempt.stopAnswered) {
        discard(attempt.to, attempt.made);
        Outcome outcome;
        outcome.status = Status::cancelled;
        outcome.destination = attempt.destination;
        return outcome;
    }
    if (m_options.sync == Sync::file) {
        if (auto problem = write_out_file(attempt.to, attempt.made, attempt.written.get())) {
            discard(attempt.to, attempt.made);
            return failure(attempt.destination, *problem);
        }
    }
    attempt.result = attempt.to.look(attempt.made);
    const bool stores = attempt.store.any() || !attempt.around.destinationNew || !attempt.around.sourceWithoutStore;
    for (int i = 0; i < kMostNames; ++i) {
        if (auto problem = back_up(attempt)) {
            discard(attempt.to, attempt.made);
            return failure(attempt.destination, *problem);
        }
        auto left = place({attempt.to, attempt.made, attempt.name, attempt.replace && !attempt.backedUp, stores,
                           attempt.store.is_beside(), attempt.linked});
        if (left) {
            attempt.begun = true;
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
    const int number = errno;
    discard(attempt.to, attempt.made);
    return not_placed(attempt, number);
}

// The old way: what fails from here on has cost the old content, and that is said.
Outcome FileTransfer::write_in_place(Attempt &attempt, const struct stat &old) {
    constexpr char gone[] = "; the old content is gone";
    auto problem = hold_in_place(attempt);
    if (problem) {
        return failure(attempt.destination, std::move(*problem));
    }
    attempt.inPlace = attempt.begun = true;
    problem = make_file(attempt, attempt.name, true);
    if (problem || attempt.stopAnswered) {
        const bool touched = !Witness(old).unchanged(attempt.to.fd(), attempt.name);
        Outcome outcome =
            failure(attempt.destination, problem.value_or(Problem{"stopped while it was written in place"}));
        outcome.status = problem ? Status::failed : Status::cancelled;
        outcome.problem->reason += touched ? gone : "";
        return outcome;
    }
    struct stat written {};
    if (::fstat(attempt.target.get(), &written) != 0 || !same(written, attempt.to.look(attempt.name))) {
        return failure(attempt.destination,
                       {"another command has replaced it while it was written in place; what was written is there no "
                        "more"});
    }
    compare(attempt, attempt.name);
    attempt.result = attempt.to.look(attempt.name);
    return arrived(attempt);
}

// Two that write into one file would leave what neither has brought. The lock is the kernel's own and ends with its
// owner; a volume without locks has nobody else at work. The file is written through this descriptor, so that nobody
// leads it elsewhere by a link in its place.
std::optional<Problem> FileTransfer::hold_in_place(Attempt &attempt) {
    constexpr int flags = O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    Patience patience;
    do {
        attempt.target = Descriptor(::openat(attempt.to.fd(), attempt.name.c_str(), flags));
        struct stat found {};
        if (attempt.target.get() < 0 || ::fstat(attempt.target.get(), &found) != 0) {
            return problem_of_errno(errno);
        }
        if (!S_ISREG(found.st_mode) || same(attempt.content, found)) {
            return Problem{"was exchanged for something else meanwhile; not replaced"};
        }
        const bool locked = ::flock(attempt.target.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
        if (locked && same(found, attempt.to.look(attempt.name))) {
            return std::nullopt;
        }
    } while (patience.wait());
    return Problem{"another process is writing into it, and did not end in time"};
}

// Another name of what was written in place for another name of this file: it has that content already, and gets what
// is kept for this name.
std::optional<Outcome> FileTransfer::keep_together(Attempt &attempt) {
    const auto there = attempt.to.look(attempt.name);
    if (!m_options.inPlace || !m_options.hardLinks || m_options.conflict != Conflict::replace || attempt.asItIs ||
        !S_ISREG(attempt.entry->st_mode) || !m_linked.is_there(*attempt.entry, there) ||
        gets_into_the_file(attempt.from, attempt.sourceName, attempt.to.type())) {
        return std::nullopt;
    }
    attempt.file = Descriptor(::openat(attempt.from.fd(), attempt.sourceName.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat before {};
    if (attempt.file.get() < 0 || ::fstat(attempt.file.get(), &before) != 0 || !same(attempt.content, before)) {
        return std::nullopt;
    }
    if (attempt.storeUnknown) {
        look_for_store(attempt);
    }
    attempt.content = before;
    attempt.linked = attempt.inPlace = true;
    if (has_store(attempt.to, attempt.name)) {
        (void)remove_beside(attempt.to.below(attempt.name), attempt.to.type());
    }
    if (attempt.store.any() || m_options.operation == Operation::move) {
        carry_metadata(attempt, attempt.to, attempt.name);
    }
    compare(attempt, attempt.name);
    attempt.result = attempt.to.look(attempt.name);
    m_observer.progress(before.st_size, false);
    return arrived(attempt);
}

// What was replaced stays where it has other names. They are looked for where it lay, unless that takes long.
void FileTransfer::tell_old_names(const Attempt &attempt, Outcome &outcome) {
    constexpr size_t mostEntries = 2'000, mostNames = 10;
    // Where the new one is another name of the old one nothing of that is gone.
    if (!attempt.old || attempt.inPlace || !S_ISREG(attempt.old->st_mode) ||
        (attempt.result && same(attempt.old, *attempt.result))) {
        return;
    }
    outcome.old = {attempt.old->st_dev, attempt.old->st_ino};
    if (attempt.old->st_nlink < 2) {
        return;
    }
    outcome.oldNames = static_cast<int64_t>(attempt.old->st_nlink) - 1;
    auto names = names_in(attempt.to.fd()).value_or(std::vector<std::string>());
    if (names.size() > mostEntries) {
        return;
    }
    std::ranges::sort(names);
    // The backup is told by itself.
    const auto kept = outcome.backup.empty() ? std::nullopt : look_through(parent_of(outcome.backup));
    const std::string backup = same(kept, attempt.to.look(".")) ? base_name(outcome.backup) : "";
    for (const std::string &name : names) {
        if (name != backup && outcome.oldNamesKnown.size() < mostNames && same(attempt.old, attempt.to.look(name))) {
            outcome.oldNamesKnown.push_back(joined(attempt.to.path(), name));
        }
    }
}

// Of another name of a file that went before nothing is copied but what is kept for that name.
std::optional<Problem> FileTransfer::link_or_make(Attempt &attempt) {
    attempt.linked = false;
    if (!m_options.hardLinks || !m_linked.contains(*attempt.entry) ||
        gets_into_the_file(attempt.from, attempt.sourceName, attempt.to.type())) {
        return make_file(attempt, attempt.made, false);
    }
    attempt.file = Descriptor(::openat(attempt.from.fd(), attempt.sourceName.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat before {
    }, after{};
    if (attempt.file.get() < 0 || ::fstat(attempt.file.get(), &before) != 0 || !same(attempt.content, before) ||
        !m_linked.link(before, attempt.to, attempt.made)) {
        return attempt.file.get() >= 0 && errno == EEXIST ? problem_of_errno(EEXIST)
                                                          : make_file(attempt, attempt.made, false);
    }
    attempt.linked = true;
    if (attempt.storeUnknown) {
        look_for_store(attempt);
    }
    if (attempt.store.any() || m_options.operation == Operation::move) {
        carry_metadata(attempt, attempt.to, attempt.made);
    }
    attempt.changed = ::fstat(attempt.file.get(), &after) != 0 || !is_same_version(before, after);
    attempt.content = after;
    m_linked.touched(after);
    m_observer.progress(after.st_size, false);
    return std::nullopt;
}

// A copy that the library has made, with its store beside it, becomes a link to that of another name.
bool FileTransfer::link_again(const struct stat &file, const HeldDirectory &to, const std::string &name) {
    const std::string made = next_private_name();
    if (!m_options.hardLinks || !m_linked.link(file, to, made)) {
        return false;
    }
    const bool placed = ::renameat(to.fd(), made.c_str(), to.fd(), name.c_str()) == 0;
    (void)clear_away(to.fd(), made); // which stays, too, where both are one file already
    return placed;
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
    attempt.mayHaveAcl = true;
    if (attempt.storeUnknown) {
        look_for_store(attempt);
    }
    if (follow && S_ISLNK(attempt.entry->st_mode)) {
        find_real_place(attempt);
    }
    auto problem = !replace && attempt.mayHaveAcl && gives_group_more(attempt)
                       ? make_closed(attempt, name)
                       : call_library(attempt, attempt.to, name, replace);
    if (problem) {
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
        (void)remove_beside(attempt.to.below(name), attempt.to.type());
    }
    if (!replace && store_kind(attempt.to.type()) == StoreKind::apple_double &&
        volume_traits(attempt.to.type()).owners) {
        if (problem = carry_closed(attempt, name); problem) {
            discard(attempt.to, name);
            return problem;
        }
    } else {
        carry_metadata(attempt, attempt.to, name);
    }
    // Carrying a store may bring that of the source up to date.
    if (::fstat(attempt.file.get(), &after) != 0 || !is_same_version(before, after)) {
        attempt.changed = true;
    }
    attempt.content = after;
    return std::nullopt;
}

// Where the volume lists all that a file has, one list of the open file answers for what would be asked for by name.
void FileTransfer::look_for_store(Attempt &attempt) {
    char names[1024];
    const bool lists = std::exchange(attempt.storeUnknown, false) && attempt.file.get() >= 0 &&
                       lists_all_attributes(attempt.from.facts().magic) &&
                       attempt.entry->st_dev == attempt.from.device();
    const ssize_t size = lists ? ::listxattr(attempt.opened().c_str(), names, sizeof names) : -1;
    if (size < 0) {
        attempt.store =
            store_parts(attempt.from.below(attempt.sourceName), attempt.sourceType, attempt.around.sourceWithoutStore);
        return;
    }
    const std::string_view all(names, static_cast<size_t>(size));
    attempt.store = store_parts_in(all);
    attempt.mayHaveAcl = is_listed(all, "system.posix_acl_access");
}

// The library makes a file with the mode of its source, and gives it an ACL later, where the volume takes one.
bool FileTransfer::gives_group_more(const Attempt &attempt) {
    const mode_t mode = attempt.content->st_mode;
    return volume_traits(attempt.to.type()).owners && (mode & ~granted_mode(attempt.opened(), mode) & S_IRWXG) != 0;
}

// Where nobody else gets in, until the file gives its owning group what the source gives it.
std::optional<Problem> FileTransfer::make_closed(Attempt &attempt, const std::string &name) {
    constexpr mode_t closed = 0700, all = 07777;
    const std::string room = next_private_name(), file = "file";
    if (::mkdirat(attempt.to.fd(), room.c_str(), closed) != 0) {
        return problem_of_errno(errno);
    }
    const HeldDirectory inside(attempt.to, room);
    auto problem = inside.is_open() ? call_library(attempt, inside, file, false) : problem_of_errno(errno);
    if (!problem && !attempt.stopAnswered) {
        const Descriptor made(::openat(inside.fd(), file.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        const std::string path = fmt::format("/proc/self/fd/{}", made.get());
        struct stat there {};
        const bool known = ::fstat(made.get(), &there) == 0 && S_ISREG(there.st_mode);
        const mode_t wanted = known ? mode_for_copy(attempt.opened(), attempt.content->st_mode, path) : 0;
        const mode_t excess = there.st_mode & ~wanted & S_IRWXG;
        if (!known || (excess != 0 && ::chmod(path.c_str(), there.st_mode & all & ~excess) != 0) ||
            !rename_without_replacing(inside.fd(), file, attempt.to.fd(), name)) {
            problem = problem_of_errno(errno);
        }
    }
    attempt.note(clear_away(attempt.to.fd(), room).value_or(Problem{}));
    return problem;
}

// Of the library's entry points this one has everything at once: callbacks with user data, the request for a clone, and
// the flag that sets owner and times as this user does and tells when the owner was not kept. VEXOFileCopy_r makes no
// clones, VEXOFileReflinkCopy has bare callbacks and tries to become root for the times.
std::optional<Problem> FileTransfer::call_library(Attempt &attempt, const HeldDirectory &to, const std::string &name,
                                                  bool replace) {
    // A new record for each file: it remembers the types of the two volumes, and the next file may lie on others.
    const std::unique_ptr<VEXOCopyArgs, decltype(&VEXOCopyArgsFree)> record(VEXOCopyArgsAlloc(), &VEXOCopyArgsFree);
    if (record == nullptr) {
        return problem_of(kOutOfMemory);
    }
    record->fsTypeSrc = attempt.sourceType;
    record->fsTypeDst = to.type();
    attempt.progressSeen = false;
    attempt.cloneAsked = m_clones.wants(attempt.where(), attempt.to);
    attempt.cloneOrNothing = m_clones.insists();
    if (attempt.cloneOrNothing && !attempt.cloneAsked) {
        return Problem{kNotCloned};
    }
    if (attempt.cloneAsked && record->fsTypeSrc == kExtended && record->fsTypeDst == kExtended) {
        // A file's own data are the same to the library on both kinds; only of this one it asks for a clone.
        record->fsTypeSrc = record->fsTypeDst = kBtrfs;
    }
    VEXOCopyArgsSetFnSetProgress(record.get(), &Attempt::on_progress, &attempt);
    VEXOCopyArgsSetFnIsCancel(record.get(), &Attempt::on_poll, &attempt);
    if (m_pace.limits()) {
        VEXOCopyArgsSetFnGetReadSize(record.get(), &Attempt::on_read, &attempt);
    }
    if (m_options.sync == Sync::file) {
        VEXOCopyArgsSetFnReadWriteData(record.get(), &Attempt::on_data, &attempt);
    }
    VLIBCErrSetEx(0, "", 0);
    errno = 0;
    uint32_t flags = flag::keepOwner | flag::asCaller | flag::copyAcl | flag::withoutStore;
    flags |= replace ? flag::replace : flag::failIfExists;
    flags |= attempt.cloneAsked ? flag::clone : 0;
    const std::string place =
        attempt.target.get() >= 0 ? fmt::format("/proc/self/fd/{}", attempt.target.get()) : to.below(name);
    const int result = VEXOFileOpCopyFile(attempt.opened().c_str(), place.c_str(), flags, record.get());
    const int number = errno;
    if (attempt.is_copied_instead() && !attempt.stopAnswered) {
        discard(to, name);
        return Problem{kNotCloned};
    }
    if (result == 0) {
        return std::nullopt;
    }
    Problem problem = problem_of(VLIBCErrGet());
    problem.number = number;
    // The library asks for room for the whole length. It asks no volume of this type, and gives no owners there.
    if (problem.code == kNoSpace && !replace && fits_without_holes(*attempt.content, to)) {
        record->fsTypeDst = kNotAskedForRoom;
        VLIBCErrSetEx(0, "", 0);
        if (VEXOFileOpCopyFile(attempt.opened().c_str(), to.below(name).c_str(), flags, record.get()) != 0) {
            return problem_of(VLIBCErrGet());
        }
        // Where that fails the comparison tells it.
        (void)(volume_traits(to.type()).owners && give_owner(to.fd(), name, *attempt.content));
        return std::nullopt;
    }
    return problem.code == kOwnerLost ? std::nullopt : std::optional(problem);
}

// What the library cannot carry it takes for no failure; that it is not there is seen afterwards.
void FileTransfer::carry_metadata(Attempt &attempt, const HeldDirectory &to, const std::string &name) {
    const Side source = attempt.where().side_now(attempt.what(), attempt.sourceType);
    const StoreKind kind = source.volume.store;
    // What is kept elsewhere than in an "@eaDir" may bring one about, beside the copy and beside the source.
    attempt.nothingBeside = source.volume.noDirectory && !attempt.store.any() &&
                            (kind == StoreKind::ea_directory || kind == StoreKind::file_ea);
    if (auto problem = carry_beside(source, to.side(name), attempt.store.any(), &attempt.storeLocked)) {
        attempt.note(std::move(*problem));
    }
    // Under its own name the copy could not have it.
    const bool stays = store_kind(attempt.to.type()) != StoreKind::apple_double || name == attempt.name ||
                       takes_companion(attempt.to.fd(), attempt.name);
    if (!stays && has_store(to, name)) {
        (void)remove_beside(to.below(name), to.type());
    }
    if (witnesses()) {
        attempt.kept.emplace(attempt.from, attempt.sourceName);
    }
}

// Where stores are "._" files the library lets everybody write to what it carries one for: nobody gets at it until that
// is over. The copy comes out before its store, so that whoever tidies after a kill finds both.
std::optional<Problem> FileTransfer::carry_closed(Attempt &attempt, const std::string &name) {
    const std::string room = next_private_name(), store = "._" + name;
    struct stat before {
    }, after{};
    if (::mkdirat(attempt.to.fd(), room.c_str(), 0700) != 0) {
        return problem_of_errno(errno);
    }
    const HeldDirectory inside(attempt.to, room);
    const int to = attempt.to.fd(), in = inside.fd();
    bool good = inside.is_open() && ::renameat(to, name.c_str(), in, name.c_str()) == 0;
    const Descriptor made(good ? ::openat(in, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC) : -1);
    good = good && ::fstat(made.get(), &before) == 0;
    if (good) {
        carry_metadata(attempt, inside, name);
        good = ::fstat(made.get(), &after) == 0;
        const mode_t more = after.st_mode & ~before.st_mode;
        const std::string path = fmt::format("/proc/self/fd/{}", made.get());
        good = good && (more == 0 || ::chmod(path.c_str(), after.st_mode & before.st_mode & 07777) == 0) &&
               ::renameat(in, name.c_str(), to, name.c_str()) == 0 &&
               (::renameat(in, store.c_str(), to, store.c_str()) == 0 || errno == ENOENT);
    }
    const int number = errno;
    attempt.note(clear_away(to, room).value_or(Problem{}));
    if (good) { // what other services keep for it, which has its place by the name of the directory
        carry_own_directory(attempt.where().side_now(attempt.what(), attempt.sourceType), attempt.to.side_now(name),
                            true);
    }
    return good ? std::nullopt : std::optional(problem_of_errno(number));
}

// What belongs to a file lies beside it, not beside a link to it.
void FileTransfer::find_real_place(Attempt &attempt) {
    char path[PATH_MAX] = "";
    if (::readlink(attempt.opened().c_str(), path, sizeof path - 1) <= 0) {
        return;
    }
    HeldDirectory directory(parent_of(path));
    if (!directory.is_open() || !same(directory.look(base_name(path)), attempt.content)) {
        return;
    }
    attempt.real = std::move(directory);
    attempt.realName = base_name(path);
    attempt.sourceType = attempt.real.type();
    attempt.store = store_parts(attempt.real.below(attempt.realName), attempt.sourceType);
}

CompareOptions FileTransfer::compare_options(bool data) const {
    return {.data = data, .costs = true, .stopped = [this] { return m_observer.stopped(); }};
}

// What the copy lacks of its source, as far as that can be told without reading data.
void FileTransfer::compare(Attempt &attempt, const std::string &name) {
    if (!m_options.compared) {
        return;
    }
    const bool followed = !attempt.asItIs && S_ISLNK(attempt.entry->st_mode);
    if (followed && !attempt.real.is_open()) {
        attempt.losses.push_back(
            {LossClass::unreadable, "the directory of the file cannot be found, nor what is kept there for it"});
        return;
    }
    // What came beside the source after it was looked for came after the copy; a move asks once more before it removes.
    const bool known = attempt.nothingBeside;
    const Side source = known ? attempt.where().side(attempt.what(), attempt.sourceType)
                              : attempt.where().side_now(attempt.what(), attempt.sourceType);
    const Side copy = known ? attempt.to.side(name) : attempt.to.side_now(name);
    carry_own_directory(source, copy, false);
    std::ranges::copy_if(complete_copy(source, copy, compare_options(false), true), std::back_inserter(attempt.losses),
                         is_own_loss);
    if (name != attempt.name) {
        add_companion_too_long(copy, attempt.name, attempt.losses);
    }
}

LinkedNames::Tell FileTransfer::tell_apart() {
    return [this](const std::string &first, const std::string &second, const Loss &loss) {
        m_observer.loss(first, second, loss);
    };
}

void FileTransfer::named(const LinkedName &name) {
    (void)m_names.meet(name, tell_apart());
}

void FileTransfer::finish_names() {
    m_names.finish(tell_apart());
}

// Of the last name that is moved nothing shows that there were more, and names that are no part of the run, or did not
// get there, are nobody's loss: a name counts once it has arrived.
void FileTransfer::note_name(const struct stat &file, const std::string &source, const std::string &destination,
                             const std::optional<struct stat> &there) {
    if (!m_options.compared || !S_ISREG(file.st_mode) || !there || (file.st_nlink < 2 && !m_linked.contains(file))) {
        return;
    }
    const LinkedName name{{file.st_dev, file.st_ino},
                          {there->st_dev, there->st_ino},
                          file.st_nlink,
                          there->st_nlink,
                          source,
                          destination,
                          file.st_size};
    if (m_ledger != nullptr) {
        m_ledger->named(name);
    } else {
        named(name);
    }
}

// Against what the volume holds, as far as the kernel lets go of what it has in memory. What was found without reading
// is no matter here.
std::optional<Problem> FileTransfer::verify(Attempt &attempt, const std::string &name) const {
    if (!m_options.verify || attempt.asItIs || attempt.linked) {
        return std::nullopt;
    }
    if (attempt.changed) {
        return Problem{"changed while it was copied"};
    }
    if (auto problem = let_go(attempt.to, name)) {
        return problem;
    }
    const Side source = attempt.where().side_now(attempt.what(), attempt.sourceType);
    for (const Loss &loss : compare_entries(source, attempt.to.side_now(name), compare_options(true))) {
        // Other names than the one that is copied are told of by themselves.
        if (is_own_loss(loss) && std::ranges::find(attempt.losses, loss) == attempt.losses.end()) {
            attempt.stopAnswered = attempt.stopAnswered || m_observer.stopped();
            return attempt.stopAnswered
                       ? std::nullopt
                       : std::optional(Problem{"is not what its source is, once read back: " + loss.text()});
        }
    }
    return std::nullopt;
}

// An entry that has its name. In a tree that is copied the directories follow with their own ends; before a source goes
// they are asked for each file.
std::optional<Problem> FileTransfer::write_out(const Attempt &attempt) const {
    const bool move = m_options.operation == Operation::move;
    if (m_options.sync == Sync::volume && move && !attempt.renamed) {
        return m_volumes.write_out(attempt.to);
    }
    if (m_options.sync != Sync::file) {
        return std::nullopt;
    }
    auto problem =
        attempt.renamed ? std::optional<Problem>() : write_out_file(attempt.to, attempt.name, attempt.written.get());
    if (const std::string backups = attempt.backedUp ? m_backups.directory_for(parent_of(attempt.destination)) : "";
        !problem && !backups.empty()) {
        problem = write_out_directory(HeldDirectory(backups));
    }
    if (!problem && (move || attempt.around.to == nullptr)) {
        problem = write_out_directory(attempt.to);
    }
    return !problem && attempt.renamed ? write_out_directory(attempt.from) : problem;
}

// Tells of an entry that has its name.
Outcome FileTransfer::arrived(Attempt &attempt) {
    const bool move = m_options.operation == Operation::move;
    Outcome outcome;
    outcome.destination = attempt.destination;
    if (attempt.result) {
        m_written.add(*attempt.result, attempt.sourceName, attempt.to, attempt.name);
    }
    outcome.bytes = attempt.content && !attempt.asItIs ? attempt.content->st_size : 0;
    outcome.linked = attempt.linked;
    outcome.backup = attempt.backedUp ? m_backups.place_of(attempt.destination) : "";
    outcome.cloned = attempt.cloneAsked && !attempt.progressSeen && !attempt.linked && outcome.bytes > 0;
    outcome.inPlace = attempt.inPlace;
    tell_old_names(attempt, outcome);
    outcome.losses = attempt.losses;
    if (m_options.compared && !attempt.renamed) {
        const struct stat &meant = attempt.asItIs ? *attempt.entry : *attempt.content;
        note_name(meant, attempt.source, attempt.destination, attempt.result);
        m_linked.add(meant);
    }
    if (m_options.hardLinks && !attempt.renamed && !attempt.changed && S_ISREG(attempt.entry->st_mode) &&
        (attempt.content->st_nlink > 1 || m_linked.contains(*attempt.content))) {
        m_linked.placed(*attempt.content, attempt.to, attempt.name,
                        gets_into_the_file(attempt.from, attempt.sourceName, attempt.to.type()));
    }
    const bool across = move && !attempt.renamed;
    if (auto problem = write_out(attempt)) {
        problem->reason = "arrived, but " + problem->reason;
        outcome.status = Status::failed;
        outcome.problem = std::move(problem);
        outcome.sourceStays = across;
        return outcome;
    }
    outcome.synced = m_options.sync == Sync::file;
    prove(attempt, outcome);
    if (attempt.changed) {
        attempt.note({across ? "changed while it was copied; the source stays" : "changed while it was copied"});
        outcome.sourceStays = across;
    } else if (across && (attempt.told.replaced || keeps_source(outcome))) {
        outcome.sourceStays = true;
    } else if (across) {
        remove_source(attempt, outcome);
    }
    if (!attempt.told.reason.empty()) {
        outcome.warning = attempt.told;
    }
    return outcome;
}

// For whoever takes it for saved.
void FileTransfer::prove(const Attempt &attempt, Outcome &outcome) const {
    if (m_options.proofs && !attempt.changed && !attempt.asItIs && S_ISREG(attempt.content->st_mode)) {
        outcome.proven = attempt.content;
        outcome.provenStore = (attempt.kept ? *attempt.kept : StoreWitness(attempt.from, attempt.sourceName)).mark();
    }
}

// What an earlier run has made of another name of this file is read before this name becomes one of it, or goes: a note
// is no proof, nor is a change time that is another one.
void FileTransfer::prove_claim(const Attempt &attempt) {
    const bool move = m_options.operation == Operation::move;
    const auto *const made = move && !attempt.asItIs ? m_linked.claimed(*attempt.entry) : nullptr;
    if (made == nullptr) {
        return;
    }
    const HeldDirectory directory(parent_of(made->path));
    const bool noted = made->claimed;
    const auto is_other = [noted](const Loss &one) {
        return noted ? one.cls == LossClass::data || one.cls == LossClass::unreadable : one.cls != LossClass::hard_link;
    };
    Side source = attempt.from.side(attempt.sourceName), there = directory.side(base_name(made->path));
    for (Side *const one : {&source, &there}) {
        if (!noted && one->volume.store != StoreKind::native) { // what is kept beside it is that of each name
            one->volume.store = StoreKind::none;
            one->volume.noDirectory = true;
        }
    }
    const bool proven =
        directory.is_open() && std::ranges::none_of(compare_entries(source, there, compare_options(true)), is_other);
    if (proven) {
        m_linked.prove(*attempt.entry);
    } else if (noted && !m_observer.stopped()) {
        m_linked.forget(*attempt.entry);
    }
}

// Before the first of its names goes.
void FileTransfer::note_links(const Attempt &attempt) {
    const auto *const made = attempt.asItIs ? nullptr : m_linked.take_note(*attempt.content);
    if (made == nullptr) {
        return;
    }
    const std::string record =
        LinkNotes::Record{LinkNotes::number_of_volume(attempt.file.get()), *attempt.content, made->file, made->path}
            .text();
    if (m_ledger != nullptr) {
        m_ledger->note(record);
    } else {
        note_link(record);
    }
}

// The copy is whole. What goes is what was copied, and nothing that came in its place meanwhile.
void FileTransfer::remove_source(Attempt &attempt, Outcome &outcome) {
    note_links(attempt);
    const Witness copied(attempt.asItIs ? *attempt.entry : *attempt.content);
    const auto remove = [&] {
        return remove_with_store(attempt.from, attempt.sourceName, false, [&] {
            return (!attempt.kept || attempt.kept->unchanged(attempt.from, attempt.sourceName)) &&
                   copied.unchanged(attempt.from.fd(), attempt.sourceName);
        });
    };
    auto left = remove();
    for (int tries = 0; !left && errno != ESTALE &&
                        m_patience.again(attempt.source, attempt.destination, problem_of_errno(errno), tries);) {
        left = remove();
    }
    if (!left && (errno == ESTALE || errno == ENOENT)) {
        attempt.note({"copied, but the source was changed or exchanged meanwhile, and stays"});
        outcome.sourceStays = true;
        return;
    }
    if (!left) {
        const std::string why = errno == EWOULDBLOCK ? ": " + problem_of_placing(errno).reason : "";
        outcome =
            failure(outcome.destination, {"copied, but the source could not be removed and is still there" + why});
        outcome.losses = attempt.losses;
        return;
    }
    attempt.note(std::move(*left));
    struct stat now {};
    if (!attempt.asItIs && m_linked.contains(*attempt.content) && ::fstat(attempt.file.get(), &now) == 0) {
        m_linked.touched(now);
    }
}

std::vector<Loss> FileTransfer::losses_of(const HeldDirectory &from, const HeldDirectory &to, const std::string &name) {
    std::vector<Loss> losses;
    if (m_options.compared) {
        losses = complete_copy(from.side(name), to.side(name), compare_options(false));
    }
    if (const auto found = std::ranges::all_of(losses, is_own_loss) ? std::nullopt : from.look(name)) {
        LinkLease lease(m_ledger, m_linked);
        (void)lease.take(*found, false);
        const bool alone = gets_into_the_file(from, name, to.type());
        if (m_linked.contains(*found) && !alone && link_again(*found, to, name)) {
            losses = complete_copy(from.side(name), to.side(name), compare_options(false));
        }
        std::erase_if(losses, [](const Loss &loss) { return !is_own_loss(loss); });
        note_name(*found, joined(from.path(), name), joined(to.path(), name), to.look(name));
        m_linked.placed(*found, to, name, alone);
    }
    return losses;
}

void FileTransfer::link_names(const HeldDirectory &from, const HeldDirectory &to, const std::string &name) {
    const auto found = m_options.hardLinks ? from.look(name) : std::nullopt;
    if (found && S_ISREG(found->st_mode) && found->st_nlink > 1) {
        LinkLease lease(m_ledger, m_linked);
        (void)lease.take(*found, false);
        (void)(m_linked.contains(*found) && !gets_into_the_file(from, name, to.type()) && link_again(*found, to, name));
        m_linked.placed(*found, to, name, gets_into_the_file(from, name, to.type()));
    }
}

void FileTransfer::remember(const HeldDirectory &to, const std::string &name) {
    if (const auto there = to.look(name)) {
        m_written.add(*there, name, to, name);
    }
}

} // namespace engine
