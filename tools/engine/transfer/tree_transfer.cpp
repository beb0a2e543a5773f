#include "tools/engine/transfer/tree_transfer.h"

#include "ea/ea.h"
#include "platform/acl.h"
#include "platform/core.h"
#include "platform/sdk.h"
#include "tools/engine/compare/granted_mode.h"
#include "tools/engine/compare/name_match.h"
#include "tools/engine/compare/witness.h"
#include "tools/engine/report/codes.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/listing.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/store/store.h"
#include "tools/engine/store/store_directory.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/transfer/completion.h"
#include "tools/engine/transfer/kept_transfer.h"
#include "tools/engine/transfer/name_refusal.h"
#include "tools/engine/transfer/placement.h"
#include "tools/engine/transfer/surplus_metadata.h"
#include "tools/engine/transfer/system_attributes.h"
#include "tools/engine/volume/fat_name.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/mounts.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/stack_room.h"
#include "tools/engine/walk/units.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

Problem problem_of_making(int number) {
    return number == ENOENT ? problem_of(kDestinationMissing) : problem_of_errno(number);
}

// With what it has. False: there is none.
bool copy_store_file(int directory, const std::string &name, int to, const std::string &made) {
    constexpr int flags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const Descriptor old(::openat(directory, name.c_str(), O_RDONLY | flags));
    const Descriptor copy(::openat(to, made.c_str(), O_RDWR | O_CREAT | O_EXCL | flags, 0600));
    struct stat found {};
    if (old.get() < 0 || copy.get() < 0 || ::fstat(old.get(), &found) != 0 || !S_ISREG(found.st_mode)) {
        return false;
    }
    try {
        copy_bytes(old.get(), 0, copy.get(), 0, UINT64_MAX);
        (void)take_properties(old.get(), copy.get());
        return true;
    } catch (const Failure &) {
        return false;
    }
}

EntryKind kind_of_entry(const std::optional<struct stat> &found) {
    return found ? entry_kind(found->st_mode) : EntryKind::other;
}

} // namespace

void TreeTransfer::run(const std::string &given, const std::string &destination) {
    const bool contents = given.ends_with("/.");
    const std::string source = given == "/." ? "/" : given.substr(0, given.size() - (contents ? 2 : 0));
    if (lies_in(destination, source)) {
        failed(source, destination, into_itself());
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
    m_selection.begin(from, !contents);
    struct stat top {};
    m_sourceDevice = ::stat(from.c_str(), &top) == 0 ? top.st_dev : 0;
    m_sourceType = VEXOGetFSType(from.c_str(), 0);
    m_sourceTraits = volume_traits(m_sourceType);
    const HeldDirectory fromParent(parent_of(from)), toParent(parent_of(destination));
    m_sourceKeepsMac = HeldDirectory(from).keeps_mac();
    if (!toParent.is_open()) {
        failed(source, destination, problem_of_making(errno));
        return;
    }
    m_files.begins_in(toParent);
    m_files.tidy(toParent);
    if (m_move && fromParent.is_open()) {
        m_files.tidy(fromParent); // a move that was stopped told there that this directory goes
    }
    m_destinationType = toParent.type();
    m_destinationTraits = volume_traits(m_destinationType);
    const auto name_of = [](const std::string &path) { return path == "/" ? "." : base_name(path); };
    // What another directory has brought there is merged with this one's.
    WrittenEntries before;
    if (contents) {
        std::swap(before, m_made);
    }
    m_request = {m_request.number + 1, from, contents, m_sourceDevice, m_sourceType, m_destinationType,
                 m_sourceKeepsMac};
    m_request.filesBefore = !m_files.written().empty();
    m_request.directoriesBefore = !m_made.empty();
    m_shares = true;
    GivenName called = contents ? GivenName{destination} : named(name, destination);
    if (called.problem) {
        failed(source, destination, std::move(*called.problem));
    } else {
        directory({fromParent, name_of(from)}, {toParent, name_of(called.name)}, std::move(called.losses));
    }
    m_shares = false;
    m_made.merge(before);
}

GivenName TreeTransfer::named(const std::string &source, const std::string &destination) {
    if (!m_naming.wanted() || source == "/" || destination == "/") {
        return {destination};
    }
    const std::string parent = parent_of(destination);
    const HeldDirectory from(parent_of(source)), to(parent);
    if (!from.is_open() || !to.is_open() || !from.look(base_name(source))) {
        return {destination};
    }
    const NamingPlace place{to.fd(), to.path(), to.type()};
    GivenName given = m_naming.of_one(from.fd(), base_name(source), place, base_name(destination));
    given.name = joined(parent, given.name);
    return given;
}

// Of all that a directory holds, before the first of it is there. The list of the source is none of it.
void TreeTransfer::give_names(Level &level, const Place &destination, NameBlock &names) {
    const bool takesAll = takes_every_name(level.to.facts().magic);
    if (takesAll && !m_naming.wanted() && !volume_traits(destination.in.type()).fatNames) {
        return;
    }
    std::vector<std::string> all = names.all();
    own_names_first(
        destination.in.type(), all, [](const std::string &name) { return name; },
        [&](const std::string &name) { return takesAll || !name_kept(level.to.fd(), name); });
    if (m_naming.wanted()) {
        level.given = m_naming.of_all(level.from.fd(), all, {level.to.fd(), level.to.path(), level.to.type()});
        level.outcome.losses.insert(level.outcome.losses.end(), level.given.losses.begin(), level.given.losses.end());
        if (level.given.listed) {
            std::erase(all, kNameList);
        }
    }
    names = NameBlock(all);
}

// What is lost by it already.
std::vector<Loss> TreeTransfer::give_name(Level &level, const std::string &name) {
    if (!m_naming.wanted()) {
        return {};
    }
    const NamingPlace to{level.to.fd(), level.to.path(), level.to.type()};
    GivenName given = m_naming.of_one(level.from.fd(), name, to, name);
    level.given.others.insert_or_assign(name, given.name);
    if (given.problem) {
        level.given.nameless.insert(name);
        level.given.unusable = std::move(given.problem);
    }
    return std::move(given.losses);
}

// It stays where it is, which was told.
bool TreeTransfer::is_nameless(const Level &level, const std::string &name) {
    const auto problem = level.given.problem_of(name);
    return problem && !left(level, name, Status::failed, problem->reason.c_str(), false);
}

// It goes with the last of what it names.
void TreeTransfer::remove_list(const Level &level) const {
    const auto names = level.given.listed ? names_in(level.from.fd()) : std::nullopt;
    if (names &&
        std::ranges::all_of(*names, [](const std::string &name) { return name == kNameList || is_store_name(name); })) {
        ::unlinkat(level.from.fd(), kNameList, 0);
    }
}

Problem TreeTransfer::into_itself() const {
    return {fmt::format("a directory cannot be {} into itself", m_move ? "moved" : "copied")};
}

bool TreeTransfer::failed(const std::string &source, const std::string &destination, Problem problem,
                          std::vector<Loss> losses) {
    Outcome outcome;
    outcome.status = Status::failed;
    outcome.destination = destination;
    outcome.problem = std::move(problem);
    outcome.losses = std::move(losses);
    tell(EntryKind::directory, source, m_files.settled(std::move(outcome)));
    return false;
}

void TreeTransfer::fix_name(Level &level, Place &destination) const {
    if (m_destinationTraits.fatNames) {
        const std::string asked = std::exchange(destination.name, base_name(fat_name(destination.path())));
        if (asked != destination.name) {
            level.outcome.losses.push_back(
                {LossClass::name_changed, fmt::format("is {} in the copy", displayed(destination.name))});
        }
    }
}

bool TreeTransfer::directory(const Place &source, Place destination, std::vector<Loss> known) {
    if (m_observer.stopped()) {
        return false;
    }
    Level level{source.path()};
    level.outcome.losses = std::move(known);
    fix_name(level, destination);
    if (m_naming.wanted() && is_name_list(destination.name)) {
        return failed(level.source, destination.path(), {kNameOfList, 0, true},
                      {{LossClass::not_carried, kNameOfList}});
    }
    if (!has_stack_room()) {
        const Problem problem = problem_of_depth();
        return failed(level.source, destination.path(), problem, {{LossClass::unreadable, problem.reason}});
    }
    bool done = false;
    if (m_move && m_selection.takes_everything() && (!rename_whole(source, destination, done) || done)) {
        return done;
    }
    level.destination = destination.path();
    level.outcome.destination = level.destination;
    if (!open_source(level, source)) {
        return false;
    }
    if (m_move && m_depth == 0 && source.in.device() != destination.in.device()) {
        tell_mounts(level.source, level.from.itself(), level.destination);
    } else if (m_move && m_depth > 0 && is_mounted(level, source)) {
        return false;
    }
    if (m_made.contains(level.status.st)) { // or there would be no end of it
        Problem problem{"holds the copy: the destination is mounted in the source; not copied into itself"};
        problem.withSource = true;
        return failed(level.source, level.destination, std::move(problem), {{LossClass::data, "a copy of itself"}});
    }
    auto names = name_block_in(level.from.fd());
    for (int tries = 0; !names && again(level, level.destination, tries);) {
        names = name_block_in(level.from.fd());
    }
    if (names && m_move && names->any_of(is_left_over)) {
        m_files.tidy(level.from); // of a move that was stopped: what is kept for entries that are gone goes too
        names = name_block_in(level.from.fd());
    }
    if (!names) {
        return unreadable(level);
    }
    if (!make_destination(level, source, destination)) {
        return false;
    }
    add_kept_name(destination.in.fd(), destination.name, level.outcome.losses);
    level.hasStore = names->any_of(is_store_name);
    const size_t leftOut = m_selection.left_out();
    if (!m_selection.enters(level.status.st.st_dev, m_sourceDevice)) {
        m_selection.leave_out(names->size());
        names->clear();
    }
    bool complete = leftOut == m_selection.left_out(), gone = false;
    give_names(level, destination, *names);
    const std::string note = m_move ? begin_leaving(level, destination, names->empty()) : std::string();
    descend(source, destination);
    complete = entries(level, *names) && complete;
    if (!ascend(level, source, destination)) {
        return failed(level.source, level.destination, {"a directory was moved away meanwhile; not finished"});
    }
    finish(level, source, destination);
    if (m_move && complete && m_sync == Sync::volume && level.outcome.status == Status::done) {
        if (auto problem = m_files.write_out_volume(level.to)) {
            level.outcome.status = Status::failed;
            level.outcome.problem = std::move(problem);
        }
    }
    const bool finished =
        level.outcome.status == Status::done && !level.outcome.warning && !m_files.keeps_source(level.outcome);
    if (m_move && complete && finished) {
        complete = gone = remove_source(level, source);
    } else if (m_move && !finished && level.outcome.status == Status::done) {
        level.outcome.sourceStays = true;
        complete = false;
    } else if (m_move && level.outcome.status == Status::done) {
        level.outcome.status = m_observer.stopped() ? Status::cancelled : Status::done;
        level.outcome.sourceStays = true;
        if (leftOut == m_selection.left_out() || m_observer.stopped()) { // what was not meant stays without a word
            level.outcome.problem = Problem{"the source directory stays, with what was not moved", 0, true};
        }
    }
    if (!m_move && !complete && level.outcome.status == Status::done && m_observer.stopped()) {
        level.outcome.status = Status::cancelled;
    }
    if (m_move && !gone) {
        keep_times(level.from, level.status.st, names->all(), level.left);
    }
    if (!note.empty()) {
        ::unlinkat(destination.in.fd(), note.c_str(), 0);
    }
    tell(EntryKind::directory, level.source, level.outcome);
    return complete && level.outcome.status == Status::done;
}

// Before anything is removed: whoever asks for a tree may not know what is mounted in it.
void TreeTransfer::tell_mounts(const std::string &source, const std::string &real, const std::string &destination) {
    TreeSelection selection = m_selection; // which counts what it leaves out
    // With all the directories on the way.
    const auto is_meant = [&](const std::string &place) {
        for (size_t end = place.find('/', 1);; end = place.find('/', end + 1)) {
            const std::string part = place.substr(0, end);
            struct stat found {};
            if (::lstat((real + part).c_str(), &found) == 0 && (!selection.takes(source + part, real + part, found) ||
                                                                !selection.enters(found.st_dev, m_sourceDevice))) {
                return false;
            }
            if (end == std::string::npos) {
                return true;
            }
        }
    };
    try {
        for (const std::string &place : mounts_below(real)) {
            if (is_meant(place) && m_mounts.insert(source + place).second) {
                failed(source + place, destination + place, problem_of_mount());
            }
        }
    } catch (const Failure &) {
        return; // each is met on the way
    }
}

// One that stays, with what is in it. One at which the selection ends anyway is no matter.
bool TreeTransfer::is_mounted(const Level &level, const Place &source) {
    if (!is_mount_root(level.from.fd(), source.in.device()) ||
        !m_selection.enters(level.status.st.st_dev, m_sourceDevice)) {
        return false;
    }
    if (m_mounts.insert(level.source).second) {
        failed(level.source, level.destination, problem_of_mount());
    }
    return true;
}

// What belongs to an entry goes with that one.
bool TreeTransfer::is_selected(const Level &level, const std::string &name) {
    if (m_selection.takes_everything()) {
        return true;
    }
    const NameKind kind = name_kind(level.from.itself(), name, m_sourceType);
    const auto found = level.from.look(name);
    return kind == NameKind::store || kind == NameKind::companion || !found ||
           m_selection.takes(joined(level.source, name), level.from.below(name), *found);
}

// Before anything leaves a directory: its times from before that, and the note that keeps them beside the copy. Empty:
// there is none, as where another volume is mounted at the copy.
std::string TreeTransfer::begin_leaving(Level &level, const Place &destination, bool empty) {
    if (!level.made) {
        const auto [known, isNew] = m_departures.try_emplace({destination.in.device(), destination.in.inode()});
        if (isNew) {
            known->second = departures_in(destination.in);
        }
        for (const Departure &one : known->second) {
            if (one.is_of(level.from)) {
                level.status.st.st_atim = one.accessed;
                level.status.st.st_mtim = one.modified;
                level.left = true;
                return one.note;
            }
        }
    }
    const bool noted = !empty && destination.in.device() == level.to.device();
    return noted ? note_departure(destination.in, level.from, level.status.st) : std::string();
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
    for (int tries = 0;;) {
        level.from = HeldDirectory(source.in, source.name);
        if (level.from.is_open() &&
            VLIBCFileStat(level.from.itself().c_str(),
                          VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME, &level.status) == 0) {
            return true;
        }
        if (!again(level, level.destination, tries)) {
            return unreadable(level);
        }
    }
}

bool TreeTransfer::again(const Level &level, const std::string &destination, int &tries) {
    const int number = errno;
    const bool more = m_files.patience().again(level.source, destination, problem_of_errno(number), tries);
    errno = number;
    return more;
}

bool TreeTransfer::unreadable(const Level &level) {
    Problem problem = problem_of_errno(errno);
    problem.withSource = true;
    const std::string reason = problem.reason;
    return failed(level.source, level.destination, std::move(problem), {{LossClass::unreadable, reason}});
}

bool TreeTransfer::left(const Level &level, const std::string &name, Status status, const char *why, bool lost) {
    Outcome outcome;
    outcome.status = status;
    outcome.destination = joined(level.destination, name);
    outcome.problem = Problem{why, 0, true};
    if (lost) {
        outcome.losses.push_back({LossClass::not_carried, why});
    }
    tell(EntryKind::other, joined(level.source, name), m_files.settled(std::move(outcome)));
    return false;
}

bool TreeTransfer::entry(const Level &level, const std::string &name, std::vector<Loss> known) {
    if (m_naming.wanted() && name == kNameList) {
        return left(level, name, Status::failed, kNameOfList, true);
    }
    if (is_nameless(level, name)) {
        return false;
    }
    switch (name_kind(level.from.itself(), name, m_sourceType)) {
    case NameKind::store:
    case NameKind::companion:
        return true; // goes with the entry that it belongs to
    case NameKind::system:
        return is_left_over(name)
                   ? left(level, name, Status::skipped, "skipped, left over from a command that was stopped", false)
                   : left(level, name, Status::skipped, "skipped, belongs to the system", true);
    case NameKind::stray:
        if (!level.from.look(name) && errno == ENOENT) {
            return true; // went with the entry that it belonged to
        }
        return left(level, name, Status::failed,
                    name.starts_with("._") ? "names that begin with \"._\" are kept for metadata; left where it is"
                                           : "the name \"@eaDir\" is kept for metadata in every case; left where it is",
                    true);
    default:
        break;
    }
    if (may_be_plain(level)) {
        if (const auto whole = plain_entry(level, name)) {
            return *whole;
        }
    }
    const auto found = level.from.look(name);
    const EntryKind kind = kind_of_entry(found);
    if (kind != EntryKind::directory && m_mounts.contains(joined(level.source, name))) {
        return false;
    }
    if (kind == EntryKind::directory) {
        const Place below{level.from, name}, made{level.to, level.given.of(name)};
        if (may_be_whole(level, name, *found)) {
            copy_whole(below, made, level.hasStore || m_sourceTraits.store != m_destinationTraits.store);
            return true; // Only a move asks.
        }
        return directory(below, made, std::move(known));
    }
    return carry(level, name, found, kind, std::move(known));
}

// A file, a link or what is neither of them.
bool TreeTransfer::carry(const Level &level, const std::string &name, const std::optional<struct stat> &found,
                         EntryKind kind, std::vector<Loss> known) {
    const std::string source = joined(level.source, name);
    const std::string destination = joined(level.destination, level.given.of(name));
    const Surroundings around{.sourceWithoutStore = !level.hasStore,
                              .destinationNew = level.made,
                              .from = &level.from,
                              .to = &level.to,
                              .known = std::move(known)};
    Outcome outcome = m_files.run(source, destination, found, around);
    // What a volume cannot hold is counted, and no failure of each.
    const bool counted =
        outcome.status == Status::failed && !outcome.losses.empty() &&
        (outcome.losses.back().cls == LossClass::special_file || outcome.losses.back().cls == LossClass::symbolic_link);
    outcome.status = counted ? Status::skipped : outcome.status;
    tell(kind, source, outcome);
    return outcome.status == Status::done && !outcome.warning && !outcome.sourceStays;
}

// The whole tree at once, where that is possible. False: failed, and told. `done` is false too when it is to be copied.
bool TreeTransfer::rename_whole(const Place &source, const Place &destination, bool &done) {
    const bool maybeNames = m_naming.wanted() && !m_destinationTraits.fatNames; // that come back in it
    if (destination.in.look(destination.name) || m_sourceType != m_destinationType || maybeNames) {
        return true; // merged into, or refused by name; and metadata of another form are converted by a copy
    }
    auto left = rename_with_store({source.in, source.name, destination.in, destination.name});
    for (int tries = 0; !left && errno != EBUSY && again({source.path()}, destination.path(), tries);) {
        left = rename_with_store({source.in, source.name, destination.in, destination.name});
    }
    if (!left) {
        constexpr int copied[] = {EXDEV, EEXIST, EBUSY, ENOTEMPTY};
        return std::ranges::find(copied, errno) != std::end(copied) ||
               failed(source.path(), destination.path(),
                      errno == EWOULDBLOCK ? problem_of_placing(errno) : problem_of_making(errno));
    }
    done = true;
    if (const auto there = destination.in.look(destination.name)) {
        m_made.add(*there, source.name, destination.in, destination.name);
    }
    Outcome outcome;
    outcome.destination = destination.path();
    if (!left->reason.empty()) {
        outcome.warning = std::move(*left);
    }
    if (m_sync == Sync::file) {
        auto problem = write_out_directory(destination.in);
        problem = problem ? problem : write_out_directory(source.in);
        outcome.status = problem ? Status::failed : Status::done;
        outcome.problem = std::move(problem);
    }
    tell(EntryKind::directory, source.path(), outcome);
    return true;
}

bool TreeTransfer::make_destination(Level &level, const Place &source, const Place &destination) {
    // Nobody else gets in before the directory has its own mode; and a read-only one can be filled first.
    int tries = 0;
    do {
        level.made = ::mkdirat(destination.in.fd(), destination.name.c_str(), 0700) == 0;
    } while (!level.made && errno != EEXIST && again(level, level.destination, tries));
    if (!level.made && errno != EEXIST) {
        const Problem problem = problem_of_making(errno);
        std::vector<Loss> losses;
        if (auto refusal = refusal_of_entry(destination.in.fd(), destination.name, S_IFDIR)) {
            losses.push_back(std::move(*refusal));
        }
        return failed(level.source, level.destination, problem, std::move(losses));
    }
    if (!level.made && !existing_destination(level, source, destination)) {
        return false;
    }
    level.to = HeldDirectory(destination.in, destination.name);
    if (!level.to.is_open() || ::fstat(level.to.fd(), &level.there) != 0) {
        return failed(level.source, level.destination, problem_of_errno(errno));
    }
    m_files.begins_in(level.to);
    const auto unwritten =
        level.made && m_sync == Sync::file ? write_out_directory(destination.in) : std::optional<Problem>();
    if (unwritten) {
        return failed(level.source, level.destination, *unwritten);
    }
    (level.onTheWay ? m_stepped : m_made).add(level.there, source.name, destination.in, destination.name);
    m_files.made_directory(level.there, source.name, destination.in, destination.name);
    if (!level.made) {
        m_files.tidy(level.to);
    } else if (has_store(destination.in, destination.name)) {
        (void)remove_beside(destination.held(), m_destinationType); // of an old directory of that name
    }
    return true;
}

static Loss name_clash() {
    return {LossClass::name_clash, "another name of the source has become the same one"};
}

static Problem just_merged() {
    return {"the destination was just written by this command; not merged", kExists};
}

bool TreeTransfer::existing_destination(Level &level, const Place &source, const Place &destination) {
    const auto there = destination.in.look(destination.name);
    if (!there) {
        Problem problem = problem_of_errno(errno);
        if (!m_made.unseen_taker(source.name, destination.in, destination.name) &&
            !m_files.written().unseen_taker(source.name, destination.in, destination.name)) {
            return failed(level.source, level.destination, std::move(problem));
        }
        return failed(level.source, level.destination, just_merged(), {name_clash()});
    }
    // Two names that a FAT volume makes one of, or two sources of one name.
    std::vector<Loss> losses;
    if (m_made.is_clash(*there, source.name, destination.in, destination.name) ||
        m_files.is_clash(*there, source.name, destination.in, destination.name)) {
        losses.push_back(name_clash());
    }
    if (!S_ISDIR(there->st_mode)) {
        return failed(level.source, level.destination,
                      {fmt::format("the destination is {}, not a directory",
                                   S_ISREG(there->st_mode) ? "a file" : kind_of(there->st_mode)),
                       kNotADirectory},
                      std::move(losses));
    }
    if (there->st_dev == level.status.st.st_dev && there->st_ino == level.status.st.st_ino) {
        return failed(level.source, level.destination, {"source and destination are the same directory"});
    }
    const bool onOtherWay = m_stepped.is_clash(*there, source.name, destination.in, destination.name);
    if (onOtherWay && losses.empty()) {
        losses.push_back(name_clash());
    }
    const bool merged = !onOtherWay && (level.onTheWay || !m_made.contains(*there, destination.in, destination.name));
    return merged || failed(level.source, level.destination, just_merged(), std::move(losses));
}

// What the destination gets once its entries are there: an entry made later would change its times again.
void TreeTransfer::finish(Level &level, const Place &source, const Place &destination) {
    const std::vector<Loss> before = level.outcome.losses;
    if (!give_belongings(level, source, destination)) {
        return;
    }
    compare_level(level, source, destination);
    if (m_exact && !level.made && level.outcome.losses.size() > before.size() &&
        drop_surplus(source.in.side_now(source.name, m_sourceType), destination.in.side_now(destination.name), level.to,
                     destination.held()) &&
        give_belongings(level, source, destination)) {
        level.outcome.losses = before;
        compare_level(level, source, destination);
    }
    write_out_level(level, destination);
}

// False: failed, and noted.
bool TreeTransfer::give_belongings(Level &level, const Place &source, const Place &destination) {
    const std::string to = level.to.itself();
    const struct stat &status = level.status.st;
    const Descriptor opened = open_directory(level.to.fd(), ".");
    const int fd = opened.get();
    if (fd < 0) {
        level.outcome.status = Status::failed;
        level.outcome.problem = problem_of_errno(errno);
        return false;
    }
    carry_empty_store(source.in.side(source.name), destination.in.side(destination.name));
    give_dos_attributes(fd, level.status.attributes | VLIBC_ATTR_ARCHIVE);
    (void)!::fchown(fd, status.st_uid, status.st_gid);
    (void)VEXOACLCopy(level.from.itself().c_str(), to.c_str());
    (void)VEXOACLArchiveCopy(level.from.itself().c_str(), to.c_str()); // for root alone
    if (is_bare(level, source, destination)) {
        (void)copy_user_attributes(level.from.itself(), to);
    } else if (auto problem = carry_store(source, destination)) {
        level.outcome.warning = std::move(*problem);
    }
    // While its owner may write to it: the creation time may be kept in an attribute.
    const mode_t wanted = mode_for_copy(level.from.itself(), status.st_mode & kModeBits, to);
    if ((status.st_mode & S_IWUSR) == 0) {
        (void)::fchmod(fd, wanted | S_IWUSR);
    }
    const timespec times[] = {status.st_atim, status.st_mtim, level.status.createTime};
    (void)VLIBCFileUTime(to.c_str(), 3, times);
    // Copying an ACL sets the permissions alone.
    struct stat there {};
    if (::fstat(fd, &there) == 0 && (there.st_mode & kModeBits) != wanted) {
        (void)::fchmod(fd, wanted);
    }
    return true;
}

// Whether nothing is kept beside either directory, nor said of them in another way than by what is open: then nothing
// goes by the path, at which somebody may have put a link by now.
bool TreeTransfer::is_bare(const Level &level, const Place &source, const Place &destination) const {
    constexpr mode_t write = S_IWUSR | S_IWGRP | S_IWOTH;
    const StoreKind kind = store_kind(m_sourceType);
    const bool byMode = kind == StoreKind::apple_double && (level.status.st.st_mode & write) == 0;
    if (kind == StoreKind::native || byMode || (level.status.attributes & VLIBC_ATTR_LOCKED) != 0 ||
        source.in.type() != m_sourceType || destination.in.type() != m_destinationType ||
        has_store(source.in, source.name) || has_store(destination.in, destination.name) ||
        (kind == StoreKind::file_ea && ::getxattr(level.from.itself().c_str(), kMetadataName, nullptr, 0) >= 0)) {
        return false;
    }
    VLIBCStat there{};
    return level.made ||
           (VLIBCFileStat(level.to.itself().c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &there) == 0 &&
            (there.attributes & VLIBC_ATTR_LOCKED) == 0);
}

// A "._" file is made for a directory of another name, and gets its place as a whole: a stop would leave half of it
// where nobody could read that any more, and the library opens to everybody what it carries one for, and takes it that
// reserved characters were replaced in the name.
std::optional<Problem> TreeTransfer::carry_store(const Place &source, const Place &destination) const {
    const HeldDirectory &to = destination.in;
    const Side from = source.in.side_now(source.name, m_sourceType);
    const std::string made = next_private_name(), place = "._" + destination.name, name = "d", store = "._d";
    const bool apart = m_destinationTraits.store == StoreKind::apple_double && place.size() <= NAME_MAX &&
                       store_parts(source.held(), m_sourceType).any();
    if (!apart || ::mkdirat(to.fd(), made.c_str(), 0700) != 0) {
        return carry_beside(from, to.side_now(destination.name, m_destinationType),
                            store_parts(source.held(), m_sourceType).any());
    }
    const HeldDirectory room(to, made);
    const bool replaces = to.look(place).has_value();
    const bool begun = ::mkdirat(room.fd(), name.c_str(), 0700) == 0 &&
                       (!replaces || copy_store_file(to.fd(), place, room.fd(), store));
    const bool whole = begun && VEXOEACopyInternal(source.held().c_str(), room.below(name).c_str(), 0, 0, m_sourceType,
                                                   m_destinationType, nullptr, nullptr, nullptr) == 0;
    if (whole || !replaces) {
        (void)::renameat(room.fd(), store.c_str(), to.fd(), place.c_str());
    }
    auto stays = clear_away(to.fd(), made);
    carry_kept(from, to.side_now(destination.name, m_destinationType), true);
    return stays;
}

void TreeTransfer::write_out_level(Level &level, const Place &destination) const {
    if (m_sync != Sync::file) {
        return;
    }
    auto problem = write_out_store(destination.in, destination.name);
    if (!problem) {
        problem = write_out_directory(level.to);
    }
    if (problem) {
        level.outcome.status = Status::failed;
        level.outcome.problem = std::move(problem);
    }
}

// The times are those from before anything was taken out of the source.
void TreeTransfer::compare_level(Level &level, const Place &source, const Place &destination) {
    const CompareOptions options{.before = &level.status, .stopped = [this] { return m_observer.stopped(); }};
    for (Loss &loss : complete_copy(source.in.side_now(source.name, m_sourceType),
                                    destination.in.side_now(destination.name), options)) {
        level.outcome.losses.push_back(std::move(loss));
    }
    if (level.hasStore && !level.onTheWay) {
        add_strangers(level);
    }
}

// What lies in "@eaDir" and belongs to none of the entries. What has another name than its entry needs stays, too.
void TreeTransfer::add_strangers(Level &level) const {
    const auto lose = [&](LossClass cls, const std::string &what) { level.outcome.losses.push_back({cls, what}); };
    try {
        for (const Listing::Part &part : list_directory(level.from.fd(), store_kind(m_sourceType)).strangers) {
            if (part.inStore) {
                lose(LossClass::not_carried, fmt::format("{} belongs to no entry", displayed(part_text(part))));
            }
        }
    } catch (const Failure &failure) {
        lose(LossClass::unreadable, failure.what());
    }
}

// Everything in the source has arrived; what is left of it is the directory and what belongs to it.
bool TreeTransfer::remove_source(Level &level, const Place &source) {
    const auto now = source.in.look(source.name);
    const bool same = now && now->st_dev == level.status.st.st_dev && now->st_ino == level.status.st.st_ino;
    if (same) {
        (void)EARemoveEADir(level.from.below("@eaDir").c_str()); // where nothing is left in it
        remove_list(level);
        if (auto left = remove_with_store(source.in, source.name, true, [] { return true; })) {
            if (!left->reason.empty()) {
                level.outcome.warning = std::move(*left);
            }
            return true;
        }
    }
    level.outcome.status = Status::failed;
    level.outcome.problem = same ? problem_of_placing(errno) : Problem{"it was exchanged for something else meanwhile"};
    level.outcome.problem->reason =
        "arrived, but the source directory could not be removed: " + level.outcome.problem->reason;
    return false;
}

} // namespace engine
