#include "tools/engine/plan/plan.h"

#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/compare/linked_names.h"
#include "tools/engine/compare/name_match.h"
#include "tools/engine/losses/wording.h"
#include "tools/engine/naming/naming.h"
#include "tools/engine/plan/destination.h"
#include "tools/engine/plan/store_room.h"
#include "tools/engine/report/codes.h"
#include "tools/engine/report/names.h"
#include "tools/engine/select/tree_selection.h"
#include "tools/engine/store/listing.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/transfer/backup.h"
#include "tools/engine/transfer/clone_policy.h"
#include "tools/engine/transfer/file_conflict.h"
#include "tools/engine/transfer/placement.h"
#include "tools/engine/transfer/special_file.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/mounts.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/rename.h"
#include "tools/engine/walk/stack_room.h"

#include "tools/engine/report/failure.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <limits>
#include <memory>
#include <set>
#include <unistd.h>
#include <utility>

namespace engine {
namespace {

constexpr int kMostHeldOpen = 6;

Problem just_written(const char *what) {
    return {fmt::format("the destination was just written by this command; not {}", what), kExists};
}

} // namespace

class Planner::Walk {
  public:
    // Where the first name of a file goes; what stands there already, of one that is the same.
    struct PlannedLink {
        const UsedRoom *room;
        uint32_t project = 0;
        ino_t there = 0;
        bool alone = false; // no other name becomes a link to it
        Inode becomes = {}; // what it is at the destination, where that is known; else a number that no file has
    };

    Walk(const PlanOptions &options, PlanObserver &observer)
        : m_options(options), m_transfer(options.transfer), m_observer(observer),
          m_selection(options.transfer.selection), m_clones(options.transfer), m_backups(options.transfer.backup),
          m_asked(options.probe, options.transfer.reversibleNames),
          m_naming(options.transfer.reversibleNames, true, false) {}

    void run(const std::string &source, const std::string &destination);
    void run_below(const std::string &base, const std::string &top, const std::string &name, const NamesBelow &how);
    void finish() { m_names.finish(tell_apart()); }
    const std::vector<VolumePlan> &volumes();

  private:
    struct Source {
        const HeldDirectory &in;
        std::string name, path;
        const VolumeFacts &facts; // of the directory
        Side side() const { return {in.fd(), name, facts}; }
    };
    bool moves() const { return m_transfer.operation == Operation::move; }
    bool tell(PlannedEntry planned);
    bool tell_arrived(const Source &source, PlannedEntry planned);
    bool tell_same(const Source &source, PlannedEntry planned);
    bool fail(PlannedEntry planned, Problem problem, std::vector<Loss> losses = {});

    bool begin_way(const std::string &base, const std::string &top);
    void finish_base();
    bool step_down(const std::string &name, const NamesBelow &how, const std::string &wanted);
    void leaf(const std::string &name, const NamesBelow &how, const std::string &wanted);
    void missed(const std::string &wanted, Problem problem);

    Destination &destination_of(const std::string &path);
    bool may_make_in(const Destination &to, PlannedEntry &planned, int &number);

    // A directory with what is to become of it.
    struct Opened {
        PlannedEntry planned = {};
        HeldDirectory from = {};
        Destination inner = {};
        struct stat found = {};
        std::optional<struct stat> there = {};
        std::string name = {}; // at the destination
    };
    static void take_room_of_list(const Destination &to, int64_t bytes);
    static NamingPlace place_of(const Destination &to);
    GivenNames names_for(const HeldDirectory &from, const Destination &inner, std::vector<Entry> &entries);
    GivenName name_for(const HeldDirectory &from, const std::string &name, const Destination &to,
                       const std::string &meant);
    bool open_directory_of(const Source &source, Destination &to, std::string name, Opened &opened, bool onTheWay);
    bool merge_directory(const Source &source, Destination &to, Opened &opened, bool unfinished = false);
    bool is_renamed(const Source &source, dev_t volume, int type, const Destination &to) const;
    static int refusal_to_move(const Source &source, const Opened &opened, const Destination &to);
    bool tree(const Source &source, Destination &to, std::string name, std::vector<Loss> known = {});
    bool entries(const HeldDirectory &from, Destination &inner, std::vector<Loss> &strangers);
    bool entry(const HeldDirectory &from, const VolumeFacts &facts, const std::string &name, Destination &to,
               const GivenNames &given, std::vector<Loss> known = {});
    GivenName name_of_top(const std::string &source, const Destination &to, const std::string &meant);
    bool left(const std::string &path, const Destination &to, const std::string &name, NameKind kind);
    bool file(const Source &source, Destination &to, std::string name, std::vector<Loss> known = {});
    bool placed(const Source &source, const struct stat &found, Destination &to, const std::string &name,
                PlannedEntry planned, bool asItIs);
    std::optional<Problem> refusal_of_place(const Source &source, const Destination &to, const std::string &name,
                                            const PlannedEntry &planned, bool renamed) const;
    bool resolve(const Source &source, const struct stat &entry, const struct stat &content, bool asItIs,
                 Destination &to, std::string &name, PlannedEntry &planned, bool &done);
    bool is_same(const Source &source, const struct stat &entry, const struct stat &content, Destination &to,
                 const std::string &name, PlannedEntry &planned);
    std::optional<Problem> backup_refusal(const struct stat &entry, Destination &to, const std::string &name,
                                          PlannedEntry &planned);
    std::optional<Problem> choose_free_name(const Destination &to, std::string &name) const;
    static int64_t name_bytes(Destination &to, int64_t bytes);
    static Room store_room(Destination &to, const Source &source, const struct stat &found);
    static void take_room(Destination &to, const Source &source, const struct stat &found, const struct stat *old,
                          PlannedEntry &planned);
    static int refusal_of(const AskedVolume &volume, const Room &needed);
    void hard_linked(const Source &source, const struct stat &found, const AskedVolume &volume, PlannedEntry &planned,
                     const struct stat *old);
    LinkedNames::Tell tell_apart();
    void note_name(const struct stat &found, const PlannedEntry &planned, uint64_t names);

    const PlanOptions &m_options;
    const TransferOptions &m_transfer;
    PlanObserver &m_observer;
    TreeSelection m_selection;
    ClonePolicy m_clones;
    Backups m_backups;
    dev_t m_device = 0; // of the tree under way
    AskedVolumes m_asked;
    Naming m_naming;
    std::map<std::string, Destination> m_destinations; // that requests name
    // Files of several names, one of which has been planned, with the volume that it goes to.
    std::map<std::pair<dev_t, ino_t>, PlannedLink> m_linked;
    LinkedNames m_names;
    ino_t m_made = 0; // files that have no number yet
    std::vector<VolumePlan> m_volumes;
    int m_depth = 0;
    std::vector<std::unique_ptr<Opened>> m_way; // from the base of names down to the last one's directory
    std::vector<std::string> m_wayNames;        // of all but the first
    std::set<std::string> m_told;               // directories on the way
};

// True: nothing of it stays behind.
bool Planner::Walk::tell(PlannedEntry planned) {
    const bool fails =
        std::ranges::any_of(planned.losses, [&](const Loss &loss) { return engine::fails(loss, m_transfer.accepted); });
    const bool done = planned.deed != Deed::fail && planned.deed != Deed::skip;
    planned.sourceStays = planned.sourceStays || (moves() && done && planned.deed != Deed::rename && fails);
    m_observer.entry(planned);
    return done && !planned.sourceStays;
}

// Of a move to another volume what was left behind keeps the source; else that goes, if it can.
bool Planner::Walk::tell_arrived(const Source &source, PlannedEntry planned) {
    const auto fails = [&](const Loss &loss) { return engine::fails(loss, m_transfer.accepted); };
    if (moves() && std::ranges::none_of(planned.losses, fails) && refusal_to_go(source.in.fd(), source.name) != 0) {
        planned.same = planned.linked = planned.cloned = false;
        return fail(std::move(planned), {"copied, but the source could not be removed and is still there"});
    }
    return tell(std::move(planned));
}

// Of a move the source goes, as of one that arrives.
bool Planner::Walk::tell_same(const Source &source, PlannedEntry planned) {
    if (moves() && refusal_to_go(source.in.fd(), source.name) != 0) {
        return tell_arrived(source, std::move(planned));
    }
    planned.sourceGoes = moves();
    return tell(std::move(planned)) || moves();
}

bool Planner::Walk::fail(PlannedEntry planned, Problem problem, std::vector<Loss> losses) {
    const bool accepted = !losses.empty() && std::ranges::none_of(losses, [&](const Loss &loss) {
        return engine::fails(loss, m_transfer.accepted);
    });
    // In a tree, what a volume cannot hold is counted, and no failure of each.
    const bool counted =
        m_depth > 0 && !losses.empty() &&
        (losses.back().cls == LossClass::special_file || losses.back().cls == LossClass::symbolic_link);
    planned.deed = accepted || counted ? Deed::skip : Deed::fail;
    std::erase_if(planned.losses, [](const Loss &loss) { return loss.cls == LossClass::name_changed; });
    planned.problem = std::move(problem);
    planned.inPlace = false; // nothing is replaced
    planned.backup.clear();
    planned.oldNames = 0;
    std::ranges::move(losses, std::back_inserter(planned.losses));
    return tell(std::move(planned));
}

Destination &Planner::Walk::destination_of(const std::string &path) {
    auto [found, isNew] = m_destinations.try_emplace(path);
    if (isNew) {
        found->second.path = path;
        found->second.there = HeldDirectory(path);
        if (found->second.is_there()) {
            found->second.volume = &m_asked.of(found->second.there);
        }
    }
    return found->second;
}

// Whether this user may make anything there.
bool Planner::Walk::may_make_in(const Destination &to, PlannedEntry &planned, int &number) {
    if (to.is_there() && ::faccessat(to.there.fd(), ".", W_OK | X_OK, AT_EACCESS) != 0) {
        number = errno;
        return fail(planned, problem_of_errno(number));
    }
    number = 0;
    return true;
}

void Planner::Walk::run(const std::string &given, const std::string &destination) {
    const bool contents = given.ends_with("/.");
    m_backups.begin(contents ? destination : parent_of(destination));
    const std::string source = given == "/." ? "/" : given.substr(0, given.size() - (contents ? 2 : 0));
    const auto top = look(source.ends_with('/') && source != "/" ? source.substr(0, source.size() - 1) : source);
    const auto found = look(given);
    const bool isTree = m_transfer.trees && found && S_ISDIR(found->st_mode);
    m_selection.begin(source, true);
    if (!contents && top && !m_selection.takes(source, source, *top)) {
        return;
    }
    PlannedEntry planned{.source = source, .destination = destination};
    std::string from = source;
    if (isTree) {
        m_observer.tree(source);
        planned.kind = EntryKind::directory;
        if (lies_in(destination, source)) {
            fail(planned, {fmt::format("a directory cannot be {} into itself", moves() ? "moved" : "copied")});
            return;
        }
        if (source.ends_with('/') || (contents && top && S_ISLNK(top->st_mode))) {
            if (moves() && top && S_ISLNK(top->st_mode)) {
                fail(planned, {"is a symbolic link; to move the link give it without the slash", 0, true});
                return;
            }
            const std::unique_ptr<char, decltype(&std::free)> real(::realpath(source.c_str(), nullptr), &std::free);
            from = real == nullptr ? source : real.get();
        }
    }
    m_selection.begin(from, !contents);
    m_device = found ? found->st_dev : 0;
    const HeldDirectory parent(parent_of(from));
    Destination &to = destination_of(parent_of(destination));
    if (!to.is_there()) {
        errno = 0;
        const HeldDirectory again(to.path);
        fail(planned, errno == ENOENT ? problem_of(kDestinationMissing) : problem_of_errno(errno));
        return;
    }
    const auto name_of = [](const std::string &path) { return path == "/" ? "." : base_name(path); };
    const VolumeFacts facts = volume_facts(parent.fd(), parent.type());
    const Source what{parent, name_of(from), from, facts};
    const std::string meant = name_of(destination);
    GivenName called = contents ? GivenName{meant} : name_of_top(source, to, meant);
    if (called.problem) {
        fail(planned, std::move(*called.problem));
    } else if (isTree) {
        (void)tree(what, to, called.name, std::move(called.losses));
    } else {
        (void)file(what, to, called.name, std::move(called.losses));
    }
}

GivenName Planner::Walk::name_of_top(const std::string &source, const Destination &to, const std::string &meant) {
    if (!m_naming.wanted() || source == "/" || meant == ".") {
        return {meant};
    }
    const std::string path = source.substr(0, source.size() - (source.ends_with('/') ? 1 : 0));
    const HeldDirectory around(parent_of(path));
    const bool there = around.is_open() && around.look(base_name(path));
    return there ? name_for(around, base_name(path), to, meant) : GivenName{meant};
}

bool Planner::Walk::left(const std::string &path, const Destination &to, const std::string &name, NameKind kind) {
    PlannedEntry planned{.source = path, .destination = joined(to.path, name), .deed = Deed::skip};
    if (kind == NameKind::system && is_left_over(name)) {
        planned.problem = Problem{"skipped, left over from a command that was stopped", 0, true};
        return tell(std::move(planned));
    }
    if (kind == NameKind::system) {
        planned.problem = Problem{"skipped, belongs to the system", 0, true};
        planned.losses.push_back({LossClass::not_carried, planned.problem->reason});
        return tell(std::move(planned));
    }
    const char *const why = name.starts_with("._")
                                ? "names that begin with \"._\" are kept for metadata; left where it is"
                                : "the name \"@eaDir\" is kept for metadata in every case; left where it is";
    return fail(std::move(planned), {why, 0, true}, {{LossClass::not_carried, why}});
}

NamingPlace Planner::Walk::place_of(const Destination &to) {
    return {to.is_there() ? to.there.fd() : -1, to.path, to.volume->rehearsal->volume().type};
}

void Planner::Walk::take_room_of_list(const Destination &to, int64_t bytes) {
    AskedVolume &volume = *to.volume;
    const int64_t block = std::max<int64_t>(volume.rehearsal->room().block, 1);
    const Room needed{(bytes + block - 1) / block * block, 1};
    const bool found = refusal_of(volume, needed) == 0;
    volume.room->take(needed, {}, found);
    for (const auto &[room, refusal] : volume.quotas) {
        room->take(needed, {}, found);
    }
}

GivenNames Planner::Walk::names_for(const HeldDirectory &from, const Destination &inner, std::vector<Entry> &entries) {
    std::vector<std::string> names;
    if (m_naming.wanted()) {
        std::ranges::transform(entries, std::back_inserter(names), &Entry::name);
    }
    GivenNames given = m_naming.of_all(from.fd(), names, place_of(inner));
    if (given.listBytes > 0) {
        take_room_of_list(inner, given.listBytes);
    }
    if (given.listed) {
        std::erase_if(entries, [](const Entry &one) { return one.name == kNameList; });
    }
    return given;
}

GivenName Planner::Walk::name_for(const HeldDirectory &from, const std::string &name, const Destination &to,
                                  const std::string &meant) {
    return m_naming.of_one(from.fd(), name, place_of(to), meant);
}

bool Planner::Walk::entry(const HeldDirectory &from, const VolumeFacts &facts, const std::string &name, Destination &to,
                          const GivenNames &given, std::vector<Loss> known) {
    const NameKind kind = name_kind(from.itself(), name, from.type());
    if (kind == NameKind::store || kind == NameKind::companion) {
        return true; // goes with the entry that it belongs to
    }
    const std::string path = joined(from.path(), name);
    const auto found = from.look(name);
    if (found && !m_selection.takes(path, from.below(name), *found)) {
        return true; // counted
    }
    if (kind != NameKind::ordinary) {
        return left(path, to, name, kind);
    }
    if (m_naming.wanted() && name == kNameList) {
        return fail({.source = path, .destination = joined(to.path, name)}, {kNameOfList, 0, true},
                    {{LossClass::not_carried, kNameOfList}});
    }
    if (auto problem = given.problem_of(name)) {
        return fail({.source = path, .destination = joined(to.path, name)}, std::move(*problem));
    }
    const Source source{from, name, path, facts};
    const std::string &called = given.of(name);
    return found && S_ISDIR(found->st_mode) ? tree(source, to, called, std::move(known))
                                            : file(source, to, called, std::move(known));
}

// Everything in a directory that is carried into another one.
bool Planner::Walk::entries(const HeldDirectory &from, Destination &inner, std::vector<Loss> &strangers) {
    auto found = entries_in(from.fd());
    if (!found) {
        strangers.push_back({LossClass::unreadable, std::strerror(errno)});
        return false;
    }
    struct stat directory {};
    if (::fstat(from.fd(), &directory) == 0 && !m_selection.enters(directory.st_dev, m_device)) {
        m_selection.leave_out(found->size());
        return true;
    }
    const bool hasStore = std::ranges::any_of(*found, [](const Entry &one) { return is_store_name(one.name); });
    if (hasStore) {
        try {
            for (const Listing::Part &part : list_directory(from.fd(), store_kind(from.type())).strangers) {
                if (part.inStore) {
                    strangers.push_back(
                        {LossClass::not_carried, fmt::format("{} belongs to no entry", displayed(part_text(part)))});
                }
            }
        } catch (const Failure &failure) {
            strangers.push_back({LossClass::unreadable, failure.what()});
        }
    }
    VolumeFacts facts = volume_facts(from.fd(), from.type());
    facts.noDirectory = !hasStore;
    bool complete = true;
    Rehearsal &rehearsal = *inner.volume->rehearsal;
    own_names_first(
        rehearsal.volume().type, *found, [](const Entry &one) { return one.name; },
        [&](const std::string &name) { return rehearsal.listed(name) == name; });
    const GivenNames given = names_for(from, inner, *found);
    strangers.insert(strangers.end(), given.losses.begin(), given.losses.end());
    for (const Entry &one : *found) {
        if (m_observer.stopped()) {
            return false;
        }
        complete = entry(from, facts, one.name, inner, given) && complete;
    }
    return complete;
}

// Looks at a directory and at what is to become of it. False: it fails, which was told. One that is on the way to a
// name may be met again.
bool Planner::Walk::open_directory_of(const Source &source, Destination &to, std::string name, Opened &opened,
                                      bool onTheWay) {
    PlannedEntry &planned = opened.planned;
    Rehearsal &rehearsal = *to.volume->rehearsal;
    planned.kind = EntryKind::directory;
    planned.source = source.path;
    if (const std::string fixed = name_on(rehearsal.volume().type, name); fixed != name) {
        planned.losses.push_back({LossClass::name_changed, fmt::format("is {} in the copy", displayed(fixed))});
        name = fixed;
    }
    planned.destination = joined(to.path, name);
    if (m_naming.wanted() && is_name_list(name)) {
        return fail(std::move(planned), {kNameOfList, 0, true}, {{LossClass::not_carried, kNameOfList}});
    }
    const auto found = source.in.look(source.name);
    opened.from = HeldDirectory(source.in, source.name);
    if (!found || !opened.from.is_open() || ::faccessat(opened.from.fd(), ".", R_OK, AT_EACCESS) != 0) {
        const Problem problem = of_source(problem_of_errno(errno));
        return fail(std::move(planned), problem, {{LossClass::unreadable, problem.reason}});
    }
    if (moves() && m_depth > 0 && is_mount_root(opened.from.fd(), source.in.device()) &&
        m_selection.enters(opened.from.device(), m_device)) {
        return fail(std::move(planned), problem_of_mount());
    }
    if (auto refusal = rehearsal.refusal_of(name, S_IFDIR)) {
        return fail(std::move(planned), {refusal->detail}, {*refusal});
    }
    rehearsal.add_kept_name(name, planned.losses);
    opened.inner.path = planned.destination;
    opened.inner.volume = to.volume;
    opened.found = *found;
    opened.name = name;
    const std::string key = rehearsal.key_of(name);
    const bool apart = m_options.fresh && m_depth == 0 && !onTheWay;
    opened.there = to.is_there() && !apart ? to.there.look(name) : std::nullopt;
    const auto [known, isNew] = to.planned.try_emplace(key, source.name);
    if (!isNew && (!onTheWay || known->second != source.name)) {
        std::vector<Loss> losses;
        if (known->second != source.name) {
            losses.push_back({LossClass::name_clash, "another name of the source has become the same one"});
        }
        return fail(std::move(planned), just_written("merged"), std::move(losses));
    }
    int number = 0;
    return opened.there || may_make_in(to, planned, number);
}

// What it loses and needs, once it is not just renamed. False: it fails, which was told. `unfinished`: what is its own
// is for somebody else to carry, and to tell.
bool Planner::Walk::merge_directory(const Source &source, Destination &to, Opened &opened, bool unfinished) {
    PlannedEntry &planned = opened.planned;
    const auto &there = opened.there;
    if (there && !S_ISDIR(there->st_mode)) {
        return fail(std::move(planned), {fmt::format("the destination is {}, not a directory",
                                                     S_ISREG(there->st_mode) ? "a file" : kind_of(there->st_mode)),
                                         kNotADirectory});
    }
    if (there && same(opened.found, there)) {
        return fail(std::move(planned), {"source and destination are the same directory"});
    }
    if (there) {
        opened.inner.there = HeldDirectory(to.there, opened.name);
        if (!opened.inner.is_there()) {
            return fail(std::move(planned), problem_of_errno(errno));
        }
        opened.inner.volume = &m_asked.of(opened.inner.there);
    }
    planned.deed = there ? Deed::merge : Deed::make;
    Rehearsal &rehearsal = *to.volume->rehearsal;
    const Side merged{to.is_there() ? to.there.fd() : -1, opened.name, rehearsal.volume()};
    if (!unfinished) {
        for (Loss &loss : rehearsal.losses_of(source.side(), opened.found, there ? &merged : nullptr)) {
            planned.losses.push_back(std::move(loss));
        }
    }
    take_room(to, source, opened.found, there ? &*there : nullptr, planned);
    return planned.deed != Deed::fail || tell(std::move(planned));
}

// Whether a move gives the entry its new name, instead of carrying what it holds. `volume`, `type`: the entry's own.
bool Planner::Walk::is_renamed(const Source &source, dev_t volume, int type, const Destination &to) const {
    return moves() && to.is_there() && source.in.device() == to.there.device() && volume == to.there.device() &&
           type == to.there.type() && may_be_renamed(source.in.fd(), source.name, to.there.fd());
}

// The errno with which the kernel would refuse to rename a directory; 0: it would not. One that gets another directory
// above it is written to.
int Planner::Walk::refusal_to_move(const Source &source, const Opened &opened, const Destination &to) {
    const int number = refusal_to_go(source.in.fd(), source.name);
    struct stat above {
    }, there{};
    const bool stays =
        ::fstat(source.in.fd(), &above) == 0 && ::fstat(to.there.fd(), &there) == 0 && same(above, there);
    if (number != 0 || stays || ::faccessat(opened.from.fd(), ".", W_OK, AT_EACCESS) == 0) {
        return number;
    }
    return errno;
}

bool Planner::Walk::tree(const Source &source, Destination &to, std::string name, std::vector<Loss> known) {
    if (m_observer.stopped()) {
        return false;
    }
    Opened opened;
    opened.planned.losses = std::move(known);
    if (!open_directory_of(source, to, std::move(name), opened, false)) {
        return false;
    }
    PlannedEntry &planned = opened.planned;
    if (!has_stack_room()) {
        const Problem problem = problem_of_depth();
        return fail(std::move(planned), problem, {{LossClass::unreadable, problem.reason}});
    }
    HeldDirectory &from = opened.from;
    Destination &inner = opened.inner;
    const bool maybeNames = m_naming.wanted() && !volume_traits(to.volume->rehearsal->volume().type).fatNames;
    if (!opened.there && m_selection.takes_everything() && !maybeNames &&
        is_renamed(source, from.device(), from.type(), to)) {
        if (const int number = refusal_to_move(source, opened, to); number != 0) {
            return fail(std::move(planned), problem_of_errno(number));
        }
        planned.deed = Deed::rename;
        return tell(std::move(planned));
    }
    if (!merge_directory(source, to, opened)) {
        return false;
    }
    if (++m_depth > kMostHeldOpen) {
        source.in.let_go();
        to.there.let_go();
    }
    std::vector<Loss> strangers;
    const size_t leftOut = m_selection.left_out();
    const bool complete = entries(from, inner, strangers) && leftOut == m_selection.left_out();
    if (m_depth-- > kMostHeldOpen &&
        (!source.in.hold_again(from) || (inner.is_there() && !to.there.hold_again(inner.there)))) {
        return fail(std::move(planned), {"a directory was moved away meanwhile; not finished"});
    }
    if (inner.is_there() && open_directory(inner.there.fd(), ".").get() < 0) {
        planned.losses.clear(); // what belongs to the directory itself cannot be given to that one
        return fail(std::move(planned), problem_of_errno(errno));
    }
    std::ranges::move(strangers, std::back_inserter(planned.losses));
    planned.uncounted = !complete && m_observer.stopped();
    if (moves() && !complete) {
        planned.sourceStays = true;
        // What was not meant stays without a word.
        planned.problem = leftOut != m_selection.left_out()
                              ? std::optional<Problem>()
                              : Problem{"the source directory stays, with what was not moved", 0, true};
    }
    const auto fails = [&](const Loss &loss) { return engine::fails(loss, m_transfer.accepted); };
    const bool goes = moves() && complete && std::ranges::none_of(planned.losses, fails);
    if (const int number = goes ? refusal_to_go(source.in.fd(), source.name) : 0; number != 0) {
        return fail(std::move(planned),
                    {"arrived, but the source directory could not be removed: " + problem_of_placing(number).reason});
    }
    return tell(std::move(planned)) && complete;
}

// Which class has a file that is no file.
bool Planner::Walk::file(const Source &source, Destination &to, std::string name, std::vector<Loss> known) {
    PlannedEntry planned{.kind = EntryKind::file, .source = source.path, .losses = std::move(known)};
    Rehearsal &rehearsal = *to.volume->rehearsal;
    planned.destination = joined(to.path, name);
    const auto found = source.name.empty() ? look(source.path) : source.in.look(source.name);
    if (!found) {
        return fail(std::move(planned), of_source(problem_of_look(source.path, errno)));
    }
    const bool link = S_ISLNK(found->st_mode);
    const bool special = m_transfer.specials && is_special(found->st_mode);
    const bool asItIs = moves() ? !S_ISREG(found->st_mode) : special || (m_transfer.links && link);
    planned.kind = entry_kind(found->st_mode);
    const auto content = link && !asItIs ? source.in.look_through(source.name) : found;
    if (!content) {
        return fail(std::move(planned),
                    of_source(errno == ENOENT ? Problem{"is a symbolic link that leads nowhere", 0x0700}
                                              : problem_of_errno(errno)));
    }
    planned.kind = link && !asItIs ? EntryKind::file : planned.kind;
    if (S_ISDIR(moves() ? found->st_mode : content->st_mode)) {
        return fail(std::move(planned), of_source(problem_of_directory()));
    }
    if (!moves() && !asItIs && !S_ISREG(content->st_mode)) {
        const std::string reason = fmt::format("is {}, which cannot be copied", kind_of(content->st_mode));
        return fail(std::move(planned), of_source({reason}), {{LossClass::special_file, reason}});
    }
    if (m_naming.wanted() && is_name_list(name)) {
        return fail(std::move(planned), {kNameOfList, 0, true}, {{LossClass::not_carried, kNameOfList}});
    }
    if (const std::string fixed = name_on(rehearsal.volume().type, name); fixed != name) {
        planned.losses.push_back({LossClass::name_changed, fmt::format("is {} in the copy", displayed(fixed))});
        name = fixed;
        planned.destination = joined(to.path, name);
    }
    if (auto refusal = rehearsal.refusal_of(name, asItIs ? found->st_mode : content->st_mode)) {
        return fail(std::move(planned), {refusal->detail}, {*refusal});
    }
    rehearsal.add_kept_name(name, planned.losses);
    bool done = false;
    const bool result = resolve(source, *found, *content, asItIs, to, name, planned, done);
    return done ? result : placed(source, *content, to, name, std::move(planned), asItIs);
}

// What becomes of a destination that exists, or will by then. `done`: that is the end of it, and was told.
bool Planner::Walk::resolve(const Source &source, const struct stat &entry, const struct stat &content, bool asItIs,
                            Destination &to, std::string &name, PlannedEntry &planned, bool &done) {
    Rehearsal &rehearsal = *to.volume->rehearsal;
    const auto there = to.is_there() ? to.there.look(name) : std::nullopt;
    const auto known = to.planned.find(rehearsal.key_of(name));
    const bool written = known != to.planned.end();
    if (!there && !written) {
        return true;
    }
    const Conflict conflict = m_transfer.conflict;
    const FileAttempt attempt{.source = source.path,
                              .destination = planned.destination,
                              .from = source.in,
                              .to = to.there,
                              .sourceName = source.name,
                              .name = name,
                              .entry = entry,
                              .content = content,
                              .asItIs = asItIs};
    const bool itself = there && is_one_entry(attempt, *there, m_transfer);
    done = true;
    if (conflict == Conflict::keep_both && !(itself && moves())) {
        const auto problem = choose_free_name(to, name);
        done = problem.has_value();
        planned.destination = joined(to.path, name);
        return done ? fail(planned, *problem) : true;
    }
    if (itself) {
        return fail(planned, same_file());
    }
    if (written && known->second != source.name) {
        auto of_first = m_transfer.links ? source.in.look(known->second) : source.in.look_through(known->second);
        of_first = of_first ? of_first : std::optional(content);
        const LossClass cls = class_of_clash((asItIs ? entry : content).st_mode, (there ? there : of_first)->st_mode);
        const bool held = cls != LossClass::symbolic_link || volume_traits(rehearsal.volume().type).links;
        return fail(planned, {"another name of the source has become the same one; not replaced", kExists},
                    {{cls, held ? "another name of the source has become the same one" : kLinkNotHeld}});
    }
    if (conflict == Conflict::skip) {
        planned.deed = Deed::skip;
        return tell(planned);
    }
    if (conflict == Conflict::update && there && !written && is_same(source, entry, content, to, name, planned)) {
        return tell_same(source, planned);
    }
    if (there && S_ISDIR(there->st_mode)) {
        return fail(planned, problem_of(kIsDirectory));
    }
    if (conflict == Conflict::fail) {
        return fail(planned, problem_of(kExists));
    }
    const bool special = m_transfer.specials && is_special(entry.st_mode);
    if (there && !S_ISREG(there->st_mode) && !S_ISLNK(there->st_mode) && !(special && is_special(there->st_mode))) {
        return fail(planned, {fmt::format("the destination is {}; not replaced", kind_of(there->st_mode)), kExists});
    }
    if (written) {
        return fail(planned, just_written("replaced"));
    }
    // As a run that was stopped has left it. The content is for the run to read.
    if (there && m_backups.wanted() && conflict != Conflict::update &&
        is_same(source, entry, content, to, name, planned)) {
        return tell_same(source, planned);
    }
    if (there && m_backups.wanted()) {
        if (auto refusal = backup_refusal(entry, to, name, planned)) {
            return fail(planned, *refusal);
        }
    }
    done = false;
    planned.deed = Deed::replace;
    return true;
}

// What stands there is kept, under the name that the plan tells.
std::optional<Problem> Planner::Walk::backup_refusal(const struct stat &entry, Destination &to, const std::string &name,
                                                     PlannedEntry &planned) {
    const std::string destination = joined(to.path, name);
    planned.backup = m_backups.place_of(destination);
    const bool beside = m_backups.directory_for(to.path).empty();
    if (beside && to.planned.contains(to.volume->rehearsal->key_of(base_name(planned.backup)))) {
        return Problem{fmt::format("what stands there cannot be kept as a backup: {} was just written by this command",
                                   displayed(planned.backup))};
    }
    return m_backups.refusal(to.there, destination, entry, nullptr);
}

// Whether what stands there is passed over. Before a move content is read, for which a plan is no time.
bool Planner::Walk::is_same(const Source &source, const struct stat &entry, const struct stat &content, Destination &to,
                            const std::string &name, PlannedEntry &planned) {
    const auto there = to.there.look(name);
    if (!there || is_renamed(source, content.st_dev, source.in.type(), to)) {
        return false;
    }
    const auto known = m_linked.find({entry.st_dev, entry.st_ino});
    if (m_transfer.hardLinks && known != m_linked.end() && known->second.room == to.volume->room &&
        to.volume->rehearsal->keeps_hard_links() && known->second.there != there->st_ino) {
        return false;
    }
    HeldDirectory real;
    Side from = source.side();
    const bool asItIs = same(entry, content);
    if (!asItIs) {
        const std::unique_ptr<char, decltype(&std::free)> path(
            ::realpath(source.in.below(source.name).c_str(), nullptr), &std::free);
        real = HeldDirectory(path == nullptr ? "" : parent_of(path.get()));
        if (!real.is_open()) {
            return false;
        }
        from = real.side_now(base_name(path.get()));
    }
    std::vector<Loss> differences = compare_entries(from, to.there.side_now(name),
                                                    {.data = m_transfer.checksum,
                                                     .costs = true,
                                                     .traceless = !m_transfer.checksum || m_options.traceless,
                                                     .stopped = [this] { return m_observer.stopped(); }});
    std::erase_if(differences, [](const Loss &one) { return one.cls == LossClass::hard_link; });
    if (std::ranges::any_of(differences, [&](const Loss &one) { return is_to_update(one, m_transfer.accepted); })) {
        return false;
    }
    std::ranges::move(differences, std::back_inserter(planned.losses));
    hard_linked(source, content, *to.volume, planned, nullptr);
    if (const auto linked = m_linked.find({entry.st_dev, entry.st_ino}); linked != m_linked.end()) {
        linked->second.there = there->st_ino;
        linked->second.becomes = {there->st_dev, there->st_ino};
    }
    note_name(content, planned, there->st_nlink);
    planned.linked = false;
    planned.deed = Deed::skip;
    planned.same = true;
    to.planned.emplace(to.volume->rehearsal->key_of(name), source.name);
    return true;
}

// As the library numbers names.
std::optional<Problem> Planner::Walk::choose_free_name(const Destination &to, std::string &name) const {
    constexpr int last = 98;
    const size_t dot = name.rfind('.');
    const bool extension = dot != std::string::npos && dot != 0;
    const std::string stem = extension ? name.substr(0, dot) : name, rest = extension ? name.substr(dot) : "";
    for (int number = 1; number <= last; ++number) {
        const std::string candidate = fmt::format("{} ({}){}", stem, number, rest);
        if (!to.planned.contains(to.volume->rehearsal->key_of(candidate)) &&
            !(to.is_there() && to.there.look(candidate))) {
            name = candidate;
            return std::nullopt;
        }
    }
    return problem_of(kNoFreeName);
}

LinkedNames::Tell Planner::Walk::tell_apart() {
    return [this](const std::string &first, const std::string &second, const Loss &loss) {
        m_observer.loss(first, second, loss);
    };
}

// One that is going to arrive. `names`: how many what it becomes has there.
void Planner::Walk::note_name(const struct stat &found, const PlannedEntry &planned, uint64_t names) {
    const auto known = m_linked.find({found.st_dev, found.st_ino});
    if (known != m_linked.end() && S_ISREG(found.st_mode) && found.st_nlink > 1) {
        (void)m_names.meet({known->first, known->second.becomes, found.st_nlink, names, planned.source,
                            planned.destination, found.st_size},
                           tell_apart());
    }
}

// From the second name on a file is linked, or becomes one of its own. What a link led to is no name of it.
void Planner::Walk::hard_linked(const Source &source, const struct stat &found, const AskedVolume &volume,
                                PlannedEntry &planned, const struct stat *old) {
    if (!S_ISREG(found.st_mode) || found.st_nlink < 2) {
        return;
    }
    const auto [known, isNew] =
        m_linked.try_emplace({found.st_dev, found.st_ino}, PlannedLink{volume.room, volume.project});
    const auto entry = source.in.look(source.name);
    const bool alone = gets_into_the_file(source.in, source.name, volume.rehearsal->volume().type);
    planned.linked = !isNew && !alone && !known->second.alone && m_transfer.hardLinks &&
                     known->second.room == volume.room && known->second.project == volume.project &&
                     volume.rehearsal->keeps_hard_links() && entry && S_ISREG(entry->st_mode);
    // What is written into stays the file that it is.
    planned.linked = planned.linked &&
                     (!planned.inPlace || (m_transfer.inPlace && old != nullptr && known->second.there == old->st_ino));
    if (!planned.linked) {
        known->second.there = planned.inPlace && old != nullptr ? old->st_ino : 0;
        known->second.becomes = planned.inPlace && old != nullptr
                                    ? Inode(old->st_dev, old->st_ino)
                                    : Inode(volume.directory.device(), std::numeric_limits<ino_t>::max() - m_made++);
    }
    known->second.alone = alone; // a later name is linked to the last one
}

// Why the kernel would refuse a file the name that it is to get, or a renamed one to leave its own.
std::optional<Problem> Planner::Walk::refusal_of_place(const Source &source, const Destination &to,
                                                       const std::string &name, const PlannedEntry &planned,
                                                       bool renamed) const {
    const int directory = to.there.fd();
    int number = renamed ? refusal_to_go(source.in.fd(), source.name) : 0;
    if (planned.inPlace) {
        if (auto problem = m_transfer.inPlace ? std::nullopt : refusal_of_forced(m_transfer)) {
            return problem;
        }
        number = refusal_to_be_written(directory, name);
    } else if (to.is_there() && number == 0) {
        if (!renamed && to.there.facts().appendOnly) {
            return problem_of_append_only();
        }
        number = to.there.look(name) ? refusal_to_go(directory, name) : 0;
    }
    return number == 0 ? std::nullopt : std::optional(problem_of_errno(number));
}

bool Planner::Walk::placed(const Source &source, const struct stat &found, Destination &to, const std::string &name,
                           PlannedEntry planned, bool asItIs) {
    AskedVolume &volume = *to.volume;
    const auto old = to.is_there() ? to.there.look(name) : std::nullopt;
    planned.bytes = S_ISREG(found.st_mode) && !asItIs ? found.st_size : 0;
    int number = 0;
    if (!(planned.deed == Deed::replace && old && S_ISREG(old->st_mode) && !asItIs && to.is_there() &&
          ::faccessat(to.there.fd(), name.c_str(), W_OK, AT_EACCESS) == 0) &&
        !may_make_in(to, planned, number)) {
        return false;
    }
    const bool renamed = is_renamed(source, found.st_dev, source.in.type(), to);
    if (planned.deed == Deed::replace && old && S_ISREG(old->st_mode)) {
        planned.inPlace = !asItIs && !renamed && ::faccessat(to.there.fd(), name.c_str(), W_OK, AT_EACCESS) == 0 &&
                          (m_transfer.inPlace || ::faccessat(to.there.fd(), ".", W_OK | X_OK, AT_EACCESS) != 0);
        planned.oldNames = planned.inPlace ? 0 : static_cast<int64_t>(old->st_nlink) - 1;
    }
    if (auto problem = refusal_of_place(source, to, name, planned, renamed)) {
        return fail(std::move(planned), std::move(*problem));
    }
    if (renamed) {
        planned.deed = planned.deed == Deed::replace ? Deed::replace : Deed::rename;
        to.planned.emplace(volume.rehearsal->key_of(name), source.name);
        m_observer.entry(planned);
        return true;
    }
    if (moves() && !S_ISREG(found.st_mode) && !S_ISLNK(found.st_mode) && !m_transfer.specials) {
        const std::string reason = fmt::format("{} cannot be moved to another volume", kind_of(found.st_mode));
        return fail(std::move(planned), {reason}, {{LossClass::special_file, reason}});
    }
    if (!asItIs && ::faccessat(source.in.fd(), source.name.c_str(), R_OK, AT_EACCESS) != 0) {
        const Problem problem = of_source(problem_of_errno(errno));
        return fail(std::move(planned), problem, {{LossClass::unreadable, problem.reason}});
    }
    const uint64_t limit = volume.rehearsal->volume().largestFile;
    if (limit != 0 && !asItIs && static_cast<uint64_t>(found.st_size) >= limit) {
        const std::string reason = too_large_text(static_cast<uint64_t>(found.st_size), limit);
        return fail(std::move(planned), {reason}, {{LossClass::file_too_large, reason}});
    }
    // What is written into keeps attributes that the source has not.
    const Side stays{to.is_there() ? to.there.fd() : -1, name, volume.rehearsal->volume()};
    for (Loss &loss : volume.rehearsal->losses_of(source.side(), found, planned.inPlace ? &stays : nullptr)) {
        const bool ends = loss.cls == LossClass::file_too_large || loss.cls == LossClass::symbolic_link ||
                          loss.cls == LossClass::special_file;
        if (ends) {
            return fail(std::move(planned), {loss.detail}, {loss});
        }
        planned.losses.push_back(std::move(loss));
    }
    const std::pair<dev_t, ino_t> file(found.st_dev, found.st_ino);
    const bool first = !m_linked.contains(file);
    hard_linked(source, found, volume, planned, old ? &*old : nullptr);
    if (planned.linked && old && m_linked[file].becomes == Inode(old->st_dev, old->st_ino)) {
        planned.oldNames = 0; // it is that file already
    }
    const bool data = !planned.linked && !asItIs && S_ISREG(found.st_mode);
    planned.cloned = data && found.st_size > 0 && m_clones.wants(source.in, volume.directory);
    if (planned.cloned) {
        std::erase_if(planned.losses, [](const Loss &loss) { return loss.cls == LossClass::hole; });
    }
    const bool uncloned = data && m_clones.insists() && !m_clones.can(source.in, volume.directory);
    if (!uncloned) {
        take_room(to, source, found, old ? &*old : nullptr, planned);
    }
    if ((uncloned || planned.deed == Deed::fail) && first) {
        m_linked.erase(file); // to what is not there no other name is linked
    }
    if (uncloned) {
        planned.losses.clear(); // of what is not made nothing is lost
        return fail(std::move(planned), {kNotCloned});
    }
    if (planned.deed == Deed::fail) {
        return tell(std::move(planned));
    }
    to.planned.emplace(volume.rehearsal->key_of(name), source.name);
    const PlannedEntry told = planned;
    const bool gone = tell_arrived(source, std::move(planned));
    note_name(found, told, told.inPlace && old ? old->st_nlink : told.linked ? 2 : 1);
    return gone;
}

// What its name takes in the directory that it goes to: none is filled to more than two thirds.
int64_t Planner::Walk::name_bytes(Destination &to, int64_t bytes) {
    const Rehearsal &rehearsal = *to.volume->rehearsal;
    const int64_t block = rehearsal.room().block;
    if (rehearsal.directory_bytes() < block) {
        return 0; // kept elsewhere
    }
    const auto blocks = [block](int64_t names) { return std::max<int64_t>(names * 3 / 2 / block, 1); };
    const int64_t before = blocks(to.names);
    to.names += bytes;
    return (blocks(to.names) - before) * block;
}

// The room of what is kept for it, with the "@eaDir" that is made for that.
Room Planner::Walk::store_room(Destination &to, const Source &source, const struct stat &found) {
    const Rehearsal &rehearsal = *to.volume->rehearsal;
    StoreRoom store = room_of_store(source.side(), rehearsal, S_ISDIR(found.st_mode));
    if (!to.hasStore) {
        to.hasStore = to.is_there() && to.there.look("@eaDir");
    }
    const int made = (store.directory && !*to.hasStore ? 1 : 0) + (store.empty ? 1 : 0);
    to.hasStore = *to.hasStore || store.directory;
    store.room.bytes += made * rehearsal.directory_bytes() + name_bytes(to, store.names);
    store.room.inodes += made;
    return store.room;
}

// What is replaced goes when the copy stands, and gives its room back then, unless it is written into. A file for which
// there is no room fails.
void Planner::Walk::take_room(Destination &to, const Source &source, const struct stat &found, const struct stat *old,
                              PlannedEntry &planned) {
    AskedVolume &volume = *to.volume;
    const int64_t size = volume.rehearsal->room().block;
    constexpr int64_t block = 512;
    const int64_t data = S_ISREG(found.st_mode) && !planned.cloned && !planned.linked
                             ? bytes_for(source.side(), found, size, volume.rehearsal->keeps_holes())
                             : 0;
    const bool replaces = old != nullptr && !S_ISDIR(old->st_mode);
    const int64_t there = replaces ? old->st_blocks * block : 0;
    Room needed = store_room(to, source, found), back;
    needed.bytes += planned.linked ? 0 : volume.rehearsal->taken();
    if (planned.inPlace) {
        needed.bytes += std::max<int64_t>(data - there, 0);
        back.bytes = std::max<int64_t>(there - data, 0);
    } else {
        needed.bytes += data;
        needed.inodes += planned.linked                             ? volume.rehearsal->link_inodes()
                         : S_ISDIR(found.st_mode) && old != nullptr ? 0
                                                                    : 1;
        constexpr int64_t record = 8, unit = 4;
        needed.bytes +=
            old == nullptr
                ? name_bytes(to, record + (static_cast<int64_t>(source.name.size()) + unit - 1) / unit * unit)
                : 0;
    }
    if (replaces && !planned.inPlace && old->st_nlink < 2 && planned.backup.empty()) {
        back = {there, 1};
    }
    if (replaces && planned.backup.empty()) {
        const Room store = room_of_parts(to.there.side_now(base_name(planned.destination)), size);
        back.bytes += store.bytes;
        back.inodes += store.inodes;
    }
    const int number = refusal_of(volume, needed);
    const bool lacksBytes = volume.room->free.bytes && volume.room->now.bytes + needed.bytes > *volume.room->free.bytes;
    volume.room->take(needed, back, number == 0);
    for (const auto &[room, refusal] : volume.quotas) {
        room->take(needed, back, number == 0);
    }
    if (number != 0) {
        planned.deed = Deed::fail;
        planned.problem = number == ENOSPC && !lacksBytes ? problem_of_no_inode() : problem_of_errno(number);
        planned.losses.clear();
    }
}

// The errno of who wants as much more; 0: there is room.
int Planner::Walk::refusal_of(const AskedVolume &volume, const Room &needed) {
    int number = volume.room->has(needed) ? 0 : ENOSPC;
    for (const auto &[room, refusal] : volume.quotas) {
        if (!room->has(needed) && number == 0) {
            number = refusal;
        }
    }
    return number;
}

bool Planner::Walk::begin_way(const std::string &base, const std::string &top) {
    if (!m_way.empty() && m_way.front()->planned.source == base && m_way.front()->inner.path == top) {
        return true;
    }
    m_way.clear();
    m_wayNames.clear();
    auto opened = std::make_unique<Opened>();
    opened->planned.source = base;
    opened->from = HeldDirectory(base);
    opened->inner.path = top;
    opened->inner.there = opened->from.is_open() ? HeldDirectory(top) : HeldDirectory();
    if (!opened->inner.is_there()) {
        return false;
    }
    opened->inner.volume = &m_asked.of(opened->inner.there);
    m_selection.begin(base, false);
    m_backups.begin(top);
    m_way.push_back(std::move(opened));
    return true;
}

void Planner::Walk::missed(const std::string &wanted, Problem problem) {
    PlannedEntry planned{.source = joined(m_way.front()->planned.source, wanted),
                         .destination = joined(m_way.front()->inner.path, wanted)};
    const std::string reason = problem.reason;
    fail(std::move(planned), of_source(std::move(problem)), {{LossClass::unreadable, reason}});
}

void Planner::Walk::run_below(const std::string &base, const std::string &top, const std::string &name,
                              const NamesBelow &how) {
    if (how.alone) {
        m_observer.tree(joined(base, name));
    }
    if (name.empty() && how.trees) {
        run(joined(base, "."), top);
        return;
    }
    if (!begin_way(base, top)) {
        fail({.source = joined(base, name), .destination = joined(top, name)}, problem_of_errno(errno));
        return;
    }
    if (name.empty()) {
        if (!how.unfinished) {
            finish_base();
        }
        return;
    }
    const std::vector<std::string> parts = names_in_path(name);
    const size_t above = parts.size() - (how.alone && !how.trees ? 0 : 1);
    size_t shared = 0;
    while (shared < above && shared < m_wayNames.size() && m_wayNames[shared] == parts[shared]) {
        ++shared;
    }
    m_way.resize(shared + 1);
    m_wayNames.resize(shared);
    for (size_t at = shared; at + 1 < parts.size(); ++at) {
        if (!step_down(parts[at], how, name)) {
            return;
        }
    }
    if (shared < parts.size()) {
        leaf(parts.back(), how, name);
    }
}

// The base, where it was named itself. It keeps its name, so that its own volume is asked, and not that of what it is
// in.
void Planner::Walk::finish_base() {
    const Opened &base = *m_way.front();
    const std::string from = base.planned.source, to = base.inner.path;
    const HeldDirectory parent(parent_of(from));
    Destination above{.path = parent_of(to), .there = HeldDirectory(parent_of(to)), .volume = base.inner.volume};
    Opened opened;
    opened.planned = {.kind = EntryKind::directory, .source = from, .destination = to};
    const auto name_in = [](const std::string &path) { return path == "/" ? "." : base_name(path); };
    opened.name = name_in(to);
    opened.there = above.is_there() ? above.there.look(opened.name) : std::nullopt;
    const auto found = parent.is_open() && opened.there ? parent.look(name_in(from)) : std::nullopt;
    if (!found) {
        fail(std::move(opened.planned), problem_of_errno(errno));
        return;
    }
    opened.found = *found;
    const VolumeFacts facts = volume_facts(parent.fd(), base.from.type());
    if (merge_directory({parent, name_in(from), from, facts}, above, opened)) {
        m_observer.entry(opened.planned);
    }
}

// Into a directory on the way, as the run would go.
bool Planner::Walk::step_down(const std::string &name, const NamesBelow &how, const std::string &wanted) {
    Opened &above = *m_way.back();
    VolumeFacts facts = volume_facts(above.from.fd(), above.from.type());
    const NameKind kind = name_kind(above.from.itself(), name, above.from.type());
    const std::string path = joined(above.planned.source, name);
    auto found = above.from.look(name);
    if (kind != NameKind::ordinary) {
        return entry(above.from, facts, name, above.inner, {}) && false;
    }
    if (found && !m_selection.takes(path, above.from.below(name), *found)) {
        return false;
    }
    HeldDirectory parent;
    Source source{above.from, name, path, facts};
    std::unique_ptr<char, decltype(&std::free)> real(nullptr, &std::free);
    if (found && S_ISLNK(found->st_mode)) {
        if (!how.followed) {
            missed(wanted, {fmt::format("lies behind the symbolic link {}, which is not followed", displayed(path))});
            return false;
        }
        real.reset(::realpath(path.c_str(), nullptr));
        found = real == nullptr ? std::nullopt : look(real.get());
        parent = found ? HeldDirectory(parent_of(real.get())) : HeldDirectory();
        facts = parent.is_open() ? volume_facts(parent.fd(), parent.type()) : facts;
    }
    if (!found || !S_ISDIR(found->st_mode)) {
        missed(wanted, problem_of_errno(found ? ENOTDIR : errno));
        return false;
    }
    const Source behind{parent, parent.is_open() ? base_name(real.get()) : "", path, facts};
    const Source &taken = parent.is_open() ? behind : source;
    auto opened = std::make_unique<Opened>();
    const RoomsBefore before(*above.inner.volume);
    GivenName given = name_for(above.from, name, above.inner, name);
    if (given.problem) {
        (void)fail({.source = path, .destination = joined(above.inner.path, name)}, std::move(*given.problem));
        return false;
    }
    opened->planned.losses = std::move(given.losses);
    if (!open_directory_of(taken, above.inner, given.name, *opened, true) ||
        !merge_directory(taken, above.inner, *opened, how.unfinished)) {
        return false;
    }
    opened->planned.uncounted = moves();
    const bool first = m_told.insert(opened->inner.path).second;
    if (first && !(how.unfinished && opened->planned.deed == Deed::merge)) {
        m_observer.entry(opened->planned);
    } else {
        before.put_back(); // counted when the way led there first, or only gone into
    }
    opened->planned.source = path;
    m_way.push_back(std::move(opened));
    m_wayNames.push_back(name);
    return true;
}

void Planner::Walk::leaf(const std::string &name, const NamesBelow &how, const std::string &wanted) {
    Opened &level = *m_way.back();
    const auto found = level.from.look(name);
    if (!found) {
        fail({.kind = EntryKind::file,
              .source = joined(level.planned.source, name),
              .destination = joined(level.inner.path, name)},
             of_source(problem_of_look(joined(level.planned.source, name), errno)));
        return;
    }
    if (how.directoriesAlone && !S_ISDIR(found->st_mode)) {
        if (m_selection.takes(joined(level.planned.source, name), level.from.below(name), *found)) {
            fail({.kind = EntryKind::directory,
                  .source = joined(level.planned.source, name),
                  .destination = joined(level.inner.path, name)},
                 of_source(not_a_directory_of_list()));
        }
        return;
    }
    m_device = found->st_dev;
    if (!S_ISDIR(found->st_mode) || how.trees) {
        if (S_ISDIR(found->st_mode)) {
            m_observer.tree(joined(level.planned.source, name));
        }
        VolumeFacts facts = volume_facts(level.from.fd(), level.from.type());
        facts.noDirectory = !level.from.look("@eaDir");
        GivenName one = name_for(level.from, name, level.inner, name);
        GivenNames given;
        given.others.emplace(name, one.name);
        if (one.problem) {
            given.nameless.insert(name);
            given.unusable = std::move(one.problem);
        }
        (void)entry(level.from, facts, name, level.inner, given, std::move(one.losses));
        return;
    }
    if (how.alone) {
        (void)step_down(name, how, wanted);
        return;
    }
    fail({.kind = EntryKind::directory,
          .source = joined(level.planned.source, name),
          .destination = joined(level.inner.path, name)},
         of_source(problem_of_directory()));
}

const std::vector<VolumePlan> &Planner::Walk::volumes() {
    m_volumes.clear();
    for (const auto &[device, room] : m_asked.rooms()) {
        m_volumes.push_back({room.directory, room.most, room.free, room.probed});
    }
    for (const auto &[project, room] : m_asked.projects()) {
        FreeRoom left;
        left.quotaBytes = room.free.bytes;
        left.quotaInodes = room.free.inodes;
        m_volumes.push_back({room.directory, room.most, left, room.probed, project});
    }
    return m_volumes;
}

Planner::Planner(const PlanOptions &options, PlanObserver &observer)
    : m_walk(std::make_unique<Walk>(options, observer)) {}
Planner::~Planner() = default;

void Planner::run(const std::string &source, const std::string &destination) {
    m_walk->run(source, destination);
}

void Planner::run_below(const std::string &base, const std::string &top, const std::string &name,
                        const NamesBelow &how) {
    m_walk->run_below(base, top, name, how);
}

void Planner::finish() {
    m_walk->finish();
}

const std::vector<VolumePlan> &Planner::volumes() const {
    return m_walk->volumes();
}

} // namespace engine
