// Names that are made anew below another directory, with the directories on their way. See tree_transfer.h.
//
// A list names entries in some order, mostly that of a tree: so the directories on the way to the last name stay open,
// and the next name goes on from the last one that both have. A directory gets its times when that is over.
#include "platform/core.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/transfer/tree_transfer.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <cstdlib>
#include <fmt/format.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace engine {
namespace {

constexpr uint32_t kAsked = VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME;

std::string name_in_parent(const std::string &path) {
    return path == "/" ? "." : base_name(path);
}

} // namespace

void TreeTransfer::run_below(const std::string &base, const std::string &top, const std::string &name,
                             const NamesBelow &how) {
    if (name.empty() && how.trees) {
        leave();
        run(joined(base, "."), top);
        return;
    }
    if (!begin_way(base, top)) {
        failed(joined(base, name), joined(top, name), problem_of_errno(errno));
        return;
    }
    m_unfinished = how.unfinished;
    ++m_wanted;
    if (name.empty()) {
        m_baseListed = true;
        return;
    }
    const std::vector<std::string> parts = names_in_path(name);
    const size_t above = parts.size() - (how.alone && !how.trees ? 0 : 1);
    size_t shared = 0;
    while (shared < above && shared + 1 < m_way.size() && m_way[shared + 1].name == parts[shared]) {
        ++shared;
    }
    while (m_way.size() > shared + 1) {
        step_up();
    }
    if (m_way.empty() && !begin_way(base, top)) {
        failed(joined(base, name), joined(top, name), problem_of_errno(errno));
        return;
    }
    for (size_t at = m_way.size() - 1; at + 1 < parts.size(); ++at) {
        if (!step_down(parts[at], how, name)) {
            return;
        }
    }
    if (shared < parts.size()) {
        leaf(parts.back(), how, name);
    }
}

// False, with errno: one of the two cannot be entered.
bool TreeTransfer::begin_way(const std::string &base, const std::string &top) {
    if (!m_way.empty() && m_way.front().level.source == base && m_way.front().level.destination == top) {
        return true;
    }
    leave();
    Step step;
    Level &level = step.level;
    level.source = base;
    level.destination = top;
    level.outcome.destination = top;
    level.onTheWay = true;
    level.from = HeldDirectory(base);
    if (!level.from.is_open()) {
        return false;
    }
    level.to = HeldDirectory(top);
    if (!level.to.is_open() || ::fstat(level.to.fd(), &level.there) != 0 ||
        VLIBCFileStat(level.from.itself().c_str(), kAsked, &level.status) != 0) {
        return false;
    }
    level.hasStore = level.from.look("@eaDir").has_value();
    m_selection.begin(base, false);
    m_files.begins_in(level.to);
    m_files.tidy(level.to);
    if (m_move) {
        m_files.tidy(level.from); // of a move that was stopped
    }
    m_way.push_back(std::move(step));
    return true;
}

// A name that is not reached.
bool TreeTransfer::missed(const std::string &wanted, Problem problem) {
    const Level &base = m_way.front().level;
    Outcome outcome;
    outcome.status = Status::failed;
    outcome.destination = joined(base.destination, wanted);
    outcome.losses.push_back({LossClass::unreadable, problem.reason});
    outcome.problem = of_source(std::move(problem));
    tell(EntryKind::other, joined(base.source, wanted), m_files.settled(std::move(outcome)));
    return false;
}

// Below a base nobody who exchanges a directory for a link leads anywhere.
bool TreeTransfer::open_step(Step &step, const NamesBelow &how) const {
    const Level &above = m_way.back().level;
    step.level.from = HeldDirectory(above.from, step.name);
    const auto found = step.level.from.is_open() || !how.followed ? std::nullopt : above.from.look(step.name);
    if (found && S_ISLNK(found->st_mode)) {
        const std::unique_ptr<char, decltype(&std::free)> real(
            ::realpath(joined(above.source, step.name).c_str(), nullptr), &std::free);
        if (real != nullptr) {
            step.level.from = HeldDirectory(real.get());
            step.parent = HeldDirectory(parent_of(real.get()));
            step.real = name_in_parent(real.get());
        }
    }
    return step.level.from.is_open() &&
           VLIBCFileStat(step.level.from.itself().c_str(), kAsked, &step.level.status) == 0;
}

// Into the directory `name` of the last one. False: it is not entered, and what there is to say was told. `wanted`: the
// name that it is on the way to.
bool TreeTransfer::step_down(const std::string &name, const NamesBelow &how, const std::string &wanted) {
    Level &above = m_way.back().level;
    m_sourceType = above.from.type();
    m_destinationType = above.to.type();
    m_destinationTraits = volume_traits(m_destinationType);
    const NameKind kind = name_kind(above.from.itself(), name, m_sourceType);
    if (kind != NameKind::ordinary) {
        return entry(above, name) && false;
    }
    if (!is_selected(above, name)) {
        return false;
    }
    Step step;
    step.name = name;
    Level &level = step.level;
    level.source = joined(above.source, name);
    level.onTheWay = true;
    if (!open_step(step, how)) {
        const int number = errno;
        const auto found = above.from.look(name);
        return missed(wanted, found && S_ISLNK(found->st_mode) && !how.followed
                                  ? Problem{fmt::format("lies behind the symbolic link {}, which is not followed",
                                                        displayed(level.source))}
                                  : problem_of_errno(number));
    }
    level.outcome.losses = give_name(above, name);
    if (is_nameless(above, name)) {
        return false;
    }
    Place destination{above.to, above.given.of(name)};
    fix_name(level, destination);
    step.made = destination.name;
    level.destination = destination.path();
    level.outcome.destination = level.destination;
    if (!make_destination(level, {above.from, name}, destination)) {
        return false;
    }
    if (m_move) {
        m_files.tidy(level.from);
        begin_leaving(step);
    }
    level.hasStore = level.from.look("@eaDir").has_value();
    constexpr size_t mostHeld = 6;
    // From behind a link ".." does not lead back.
    if (m_way.size() > mostHeld && !step.parent.is_open()) {
        above.from.let_go();
        above.to.let_go();
        step.aboveLetGo = true;
    }
    m_way.push_back(std::move(step));
    return true;
}

// Out of the last directory, which is finished by that.
void TreeTransfer::step_up() {
    Step step = std::move(m_way.back());
    m_way.pop_back();
    Level &level = step.level;
    const Level &above = m_way.back().level;
    if (step.aboveLetGo && (!above.from.hold_again(level.from) || !above.to.hold_again(level.to))) {
        failed(level.source, level.destination, {"a directory was moved away meanwhile; not finished"});
        m_way.clear();
        return;
    }
    m_sourceType = above.from.type();
    m_destinationType = above.to.type();
    const Place source = step.parent.is_open() ? Place{step.parent, step.real} : Place{above.from, step.name};
    if (m_unfinished) {
        write_out_level(level, {above.to, step.made});
    } else {
        finish(level, source, {above.to, step.made});
    }
    if (m_move) {
        end_leaving(step);
    }
    if (m_unfinished && !level.made && level.outcome.status == Status::done) {
        return;
    }
    const bool first = m_told.insert({level.there.st_dev, level.there.st_ino}).second;
    if (first || level.outcome.status == Status::failed) {
        tell(EntryKind::directory, level.source, level.outcome);
    }
}

// Its times are those from before anything left it, in this run or in one that was stopped. A list may lead into a
// large directory again and again: what it holds is not looked at more often than names are wanted.
void TreeTransfer::begin_leaving(Step &step) {
    constexpr size_t fewEntries = 100'000, mostOfName = 4;
    const Level &above = m_way.back().level;
    step.note = begin_leaving(step.level, {above.to, step.made}, false);
    step.level.status = m_before.try_emplace(step.level.source, step.level.status).first->second;
    if (m_listed < fewEntries + mostOfName * m_wanted) {
        step.names = names_in(step.level.from.fd());
        m_listed += step.names ? step.names->size() : 0;
    }
}

// It stays, with its times, so that the next run finds them there.
void TreeTransfer::end_leaving(const Step &step) {
    const HeldDirectory &beside = m_way.back().level.to;
    if (step.names) {
        keep_times(step.level.from, step.level.status.st, *step.names, step.level.left);
    }
    if (!step.note.empty()) {
        ::unlinkat(beside.fd(), step.note.c_str(), 0);
    }
    // Where it is gone into again there is no such note any more.
    if (const auto known = m_departures.find({beside.device(), beside.inode()}); known != m_departures.end()) {
        std::erase_if(known->second, [&](const Departure &one) { return one.note == step.note; });
    }
}

// The last name of a path.
void TreeTransfer::leaf(const std::string &name, const NamesBelow &how, const std::string &wanted) {
    Level &level = m_way.back().level;
    m_sourceType = level.from.type();
    m_sourceTraits = volume_traits(m_sourceType);
    m_sourceKeepsMac = level.from.keeps_mac();
    m_destinationType = level.to.type();
    m_destinationTraits = volume_traits(m_destinationType);
    const auto found = level.from.look(name);
    if (found && S_ISDIR(found->st_mode) && !how.trees && how.alone) {
        (void)step_down(name, how, wanted);
        return;
    }
    if (found && !is_selected(level, name)) {
        return;
    }
    if (found && how.directoriesAlone) {
        failed(joined(level.source, name), joined(level.destination, name), of_source(not_a_directory_of_list()));
        return;
    }
    std::vector<Loss> known = found ? give_name(level, name) : std::vector<Loss>();
    if (is_nameless(level, name)) {
        return;
    }
    const std::string source = joined(level.source, name);
    const std::string destination = joined(level.destination, level.given.of(name));
    if (found && S_ISDIR(found->st_mode) && !how.trees) {
        failed(source, destination, of_source(problem_of_directory()));
        return;
    }
    if (found && S_ISDIR(found->st_mode) && lies_in(destination, source)) {
        failed(source, destination, into_itself());
        return;
    }
    if (!found || name_kind(level.from.itself(), name, m_sourceType) == NameKind::ordinary) {
        m_sourceDevice = found ? found->st_dev : 0;
        if (!found || !S_ISDIR(found->st_mode)) {
            const bool followed = found && S_ISLNK(found->st_mode) && !m_links;
            (void)carry(level, name, found, followed || !found ? EntryKind::file : entry_kind(found->st_mode),
                        std::move(known));
            return;
        }
    }
    (void)entry(level, name, std::move(known));
}

// The base, where it was named itself.
void TreeTransfer::finish_base() {
    Level &level = m_way.front().level;
    const HeldDirectory from(parent_of(level.source)), to(parent_of(level.destination));
    if (!from.is_open() || !to.is_open()) {
        failed(level.source, level.destination, problem_of_errno(errno));
        return;
    }
    m_sourceType = level.from.type();
    m_destinationType = level.to.type();
    if (same(level.status.st, level.there)) {
        failed(level.source, level.destination, {"source and destination are the same directory"});
        return;
    }
    finish(level, {from, name_in_parent(level.source)}, {to, name_in_parent(level.destination)});
    tell(EntryKind::directory, level.source, level.outcome);
}

void TreeTransfer::leave() {
    while (m_way.size() > 1) {
        step_up();
    }
    if (!m_way.empty() && std::exchange(m_baseListed, false) && !m_unfinished) {
        finish_base();
    }
    if (!m_way.empty() && m_sync == Sync::file) {
        const Level &base = m_way.front().level;
        if (auto problem = write_out_directory(base.to)) {
            failed(base.source, base.destination, std::move(*problem));
        }
    }
    m_way.clear();
}

} // namespace engine
