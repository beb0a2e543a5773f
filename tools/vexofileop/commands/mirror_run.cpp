#include "tools/vexofileop/commands/mirror_run.h"

#include "tools/engine/mirror/kept_surplus.h"
#include "tools/engine/mirror/overlap.h"
#include "tools/engine/report/names.h"
#include "tools/engine/transfer/write_out.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/entry_text.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/terminal/signals.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <sys/stat.h>

namespace tool {
namespace {

constexpr const char *kEmpty = "the source is empty; with --allow-empty everything is removed that it has not";

// Where a link leads to; a path that leads to nothing as it is.
std::string followed(const std::string &path) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    return real == nullptr ? path : real.get();
}

bool is_kept_back(const engine::Outcome &outcome) {
    return outcome.status == engine::Status::failed || outcome.status == engine::Status::cancelled || outcome.warning ||
           std::ranges::any_of(outcome.losses, [](const engine::Loss &loss) {
               return loss.cls == engine::LossClass::unreadable || loss.cls == engine::LossClass::data;
           });
}

bool lies_below(const std::string &path, const std::string &top) {
    return path == top || path.starts_with(top + "/");
}

engine::SurplusOptions engine_options(const MirrorOptions &options, bool rehearsal) {
    return {.selection = options.batch.transfer.selection,
            .leftOutToo = options.leftOutToo,
            .specials = options.batch.transfer.specials,
            .rehearsal = rehearsal,
            .reversibleNames = options.batch.transfer.reversibleNames,
            .sync = options.batch.transfer.sync == engine::Sync::file,
            .backup = options.batch.transfer.backup};
}

// Of what a stop left undone nothing is said here.
const char *plural(int64_t number) {
    return number == 1 ? "entry" : "entries";
}

} // namespace

MirrorPair::MirrorPair(const std::string &first, const std::string &second, bool oneFileSystem, const char *harm)
    : source(engine::absolute_path(first)), destination(engine::absolute_path(second)) {
    const auto from = engine::look_through(source), to = engine::look_through(destination);
    if (!from) {
        throw UsageError(fmt::format("{}: {}", engine::displayed(source), std::strerror(errno)));
    }
    exists = engine::exists(destination);
    const bool isDirectory = S_ISDIR(from->st_mode);
    if (!isDirectory || (exists && (!to || !S_ISDIR(to->st_mode)))) {
        throw UsageError(fmt::format("{}: is not a directory", engine::displayed(isDirectory ? destination : source)));
    }
    const auto itself = engine::look(source), other = engine::look(destination);
    source = itself && S_ISLNK(itself->st_mode) ? followed(source) : source;
    destination = other && S_ISLNK(other->st_mode) ? followed(destination) : destination;
    if (engine::overlap(source, destination)) {
        throw UsageError(fmt::format("{} and {} are one directory, or one lies in the other", engine::displayed(source),
                                     engine::displayed(destination)));
    }
    const auto shared = engine::overlap_by_mount(source, destination, oneFileSystem);
    if (shared) {
        const bool inSource = lies_below(*shared, source);
        throw UsageError(fmt::format("{}: is mounted there, and shares directories with {}: {}; unmount it first",
                                     engine::displayed(*shared), engine::displayed(inSource ? destination : source),
                                     harm));
    }
}

void MirrorPair::refuse_backups(const engine::BackupOptions &backup) const {
    const std::string directory = engine::directory_of_backups(backup, destination);
    if (directory.empty()) {
        return;
    }
    // What is kept there goes by its path below the destination, and would take the place of what has it already.
    if (engine::overlap(source, directory)) {
        throw UsageError(fmt::format("--backup-dir: {} and the source are one directory, or one lies in the other",
                                     engine::displayed(directory)));
    }
    if (engine::lies_in(destination, directory)) {
        throw UsageError(
            fmt::format("--backup-dir: the destination is {}, or lies in it", engine::displayed(directory)));
    }
}

bool is_in_the_way(engine::EntryKind kind, const std::string &destination) {
    const auto there = engine::look(destination);
    if (!there) {
        return false;
    }
    const engine::EntryKind found = engine::entry_kind(there->st_mode);
    return (kind == engine::EntryKind::directory) != (found == engine::EntryKind::directory) ||
           (found == engine::EntryKind::other && kind != engine::EntryKind::other);
}

SurplusRun::Options MirrorRun::surplus_options(bool rehearsal) {
    return {.surplus = engine_options(m_mirror, rehearsal),
            .ask = m_mirror.ask,
            .most = rehearsal ? -1 : m_mirror.most,
            .agreed = m_mirror.force || m_mirror.ask ? -1 : m_surplus,
            .silent = rehearsal,
            .verbose = m_options.verbose,
            .json = m_options.json,
            .report = !m_options.report.empty(),
            .stopped = [this] { return Batch::stopped(); }};
}

// Counts what is to go where that has to be known, and asks. False: nothing is to be done.
bool MirrorRun::may_begin() {
    const auto holds = engine::holds_anything(m_pair.source, m_options.transfer.selection);
    if (!holds) {
        m_console.message(fmt::format("{}: {}", engine::displayed(m_pair.source), std::strerror(errno)));
        return false;
    }
    const bool refused = !*holds && !m_mirror.allowEmpty;
    const bool counted = refused || m_mirror.most >= 0 || (!m_mirror.force && !m_mirror.ask);
    if (!counted || !m_pair.exists) {
        m_surplus = m_pair.exists ? -1 : 0;
        return true;
    }
    const SurplusRun::Options options = surplus_options(true);
    SurplusRun surplus(options, m_console, m_report);
    surplus.run(m_pair.source, m_pair.destination, engine::Surplus::obstacle);
    surplus.run(m_pair.source, m_pair.destination, engine::Surplus::extra);
    m_surplus = surplus.removed();
    if (m_surplus > 0 && refused) {
        m_console.message(fmt::format("{}: {}", engine::displayed(m_pair.source), kEmpty));
        return false;
    }
    if (m_surplus == 0 || m_mirror.force || m_mirror.ask || stop_signal() != 0) {
        return stop_signal() == 0;
    }
    return m_console.confirm(fmt::format("{}: {} {} that {} has not will be removed; go ahead?",
                                         engine::displayed(m_pair.destination), m_surplus, plural(m_surplus),
                                         engine::displayed(m_pair.source)));
}

int MirrorRun::run() {
    engine::raise_descriptor_limit();
    if (!may_begin()) {
        m_failed = true;
        return finish(1);
    }
    copy({{m_pair.source + "/.", m_pair.destination}});
    if (stopped() || m_incomplete) {
        if (m_surplus != 0) {
            m_console.message("nothing is removed, for not everything was copied");
            m_failed = true;
        }
    } else {
        remove();
    }
    m_console.clear_progress();
    return finish(1);
}

// What stands in the way goes first, and then what the source has not, once everything is there.
void MirrorRun::remove() {
    const SurplusRun::Options options = surplus_options(false);
    engine::VolumesToWriteOut volumes;
    if (m_options.transfer.sync != engine::Sync::none) {
        volumes.begin(engine::HeldDirectory(m_pair.destination));
    }
    SurplusRun surplus(options, m_console, m_report);
    bool complete = true;
    if (!m_late.empty()) {
        surplus.run(m_pair.source, m_pair.destination, engine::Surplus::obstacle);
        complete = !stopped() && copy_late() && surplus.failed() == 0; // what was cleared is filled in any case
    }
    if (complete && !stopped()) {
        surplus.run(m_pair.source, m_pair.destination, engine::Surplus::extra);
    } else if (m_surplus != 0) {
        m_console.message("nothing else is removed, for not everything was copied");
        m_failed = true;
    }
    m_removed = surplus.removed();
    m_backups += static_cast<int>(surplus.backups());
    if (m_removed > 0) {
        volumes.write_out(*this);
    }
    m_failed =
        m_failed || surplus.failed() > 0 || surplus.mounts() > 0 || surplus.was_refused() || surplus.was_limited();
    if (surplus.was_limited()) {
        m_left = std::max<int64_t>(m_surplus - m_removed, 1);
        m_console.message(fmt::format("{} {} {} not removed, for --max-delete is {}", m_left, plural(m_left),
                                      m_left == 1 ? "was" : "were", m_mirror.most));
    }
}

// The whole once more, since by a path alone somebody could lead it elsewhere; what is there by now is passed over.
bool MirrorRun::copy_late() {
    engine::TransferOptions transfer = m_options.transfer;
    transfer.countsAlone = false;
    m_again = true;
    engine::Transfer again(transfer, *this);
    again.run(m_pair.source + "/.", m_pair.destination);
    again.leave();
    m_again = false;
    return !m_incomplete;
}

void MirrorRun::entry(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) {
    const bool failed = outcome.status == engine::Status::failed;
    if (!m_again && failed && is_in_the_way(kind, outcome.destination)) {
        m_late.push_back(source);
        return;
    }
    const bool late = std::ranges::any_of(m_late, [&](const std::string &top) { return lies_below(source, top); });
    m_incomplete = m_incomplete || is_kept_back(outcome);
    if (!m_again || late || failed) {
        Batch::entry(kind, source, outcome);
    }
}

void MirrorRun::arrived(const std::string &directory, int files, int64_t bytes) {
    if (!m_again) {
        Batch::arrived(directory, files, bytes);
    }
}

std::string MirrorRun::more_counts() const {
    return fmt::format(", {} removed", m_removed);
}

void MirrorRun::add_more(Json &summary) const {
    summary.add_number("removed", m_removed);
    if (m_left > 0) {
        summary.add_number("left", m_left);
    }
}

int MirrorPlan::run() {
    const auto holds = engine::holds_anything(m_pair.source, m_options.plan.transfer.selection);
    plan({{m_pair.source + "/.", m_pair.destination}});
    const SurplusRun::Options options{.surplus = engine_options(m_mirror, true),
                                      .most = m_mirror.most,
                                      .verbose = m_options.verbose,
                                      .json = m_options.json,
                                      .report = !m_options.report.empty(),
                                      .stopped = [this] { return stopped(); }};
    SurplusRun::Options counting = options;
    counting.silent = true;
    counting.most = -1;
    plan_late(options);
    if (m_pair.exists && !stopped()) {
        const bool refused = !holds.value_or(false) && !m_mirror.allowEmpty;
        SurplusRun surplus(refused || m_incomplete ? counting : options, m_console, m_report);
        surplus.run(m_pair.source, m_pair.destination, engine::Surplus::obstacle);
        const bool blocked = surplus.failed() > 0 && !refused && !m_incomplete;
        if (blocked) {
            m_console.message("nothing else would be removed, for not everything can be copied");
        } else {
            surplus.run(m_pair.source, m_pair.destination, engine::Surplus::extra);
        }
        m_removed = surplus.removed();
        m_failed = m_failed || surplus.failed() > 0 || surplus.mounts() > 0 || surplus.was_limited();
        if ((refused || m_incomplete) && std::exchange(m_removed, 0) > 0) {
            m_console.message(refused ? fmt::format("{}: {}", engine::displayed(m_pair.source), kEmpty)
                                      : "nothing would be removed, for not everything can be copied");
            m_failed = true;
        } else if (surplus.was_limited()) {
            m_console.message(fmt::format("no more would be removed, for --max-delete is {}", m_mirror.most));
        }
    }
    return finish();
}

// What something stands in the way of that stays is not copied.
void MirrorPlan::plan_late(const SurplusRun::Options &options) {
    if (m_late.empty()) {
        return;
    }
    SurplusRun::Options gathering = options;
    gathering.silent = gathering.gathers = true;
    gathering.report = false;
    SurplusRun cleared(gathering, m_console, m_report);
    cleared.run(m_pair.source, m_pair.destination, engine::Surplus::obstacle);
    for (const engine::PlannedEntry &late : m_late) {
        const auto there = engine::look(late.destination);
        if (there && !cleared.would_remove(*there)) {
            PlanRun::entry(late);
        } else {
            plan_late(late.source, late.destination);
        }
    }
}

// Planned under a name that is free, and told under its own.
void MirrorPlan::plan_late(const std::string &source, const std::string &destination) {
    m_meant = destination;
    m_standIn = engine::joined(engine::parent_of(destination), engine::next_private_name());
    engine::Planner(m_options.plan, *this).run(source, m_standIn);
    m_meant.clear();
}

void MirrorPlan::entry(const engine::PlannedEntry &planned) {
    engine::PlannedEntry told = planned;
    if (!m_meant.empty() && lies_below(told.destination, m_standIn)) {
        told.destination = m_meant + told.destination.substr(m_standIn.size());
    }
    if (m_meant.empty() && told.deed == engine::Deed::fail && is_in_the_way(told.kind, told.destination)) {
        m_late.push_back(std::move(told));
        return;
    }
    m_incomplete = m_incomplete || told.deed == engine::Deed::fail ||
                   std::ranges::any_of(told.losses, [](const engine::Loss &loss) {
                       return loss.cls == engine::LossClass::unreadable || loss.cls == engine::LossClass::data;
                   });
    PlanRun::entry(told);
}

std::string MirrorPlan::more_counts() const {
    return fmt::format(", {} removed", m_removed);
}

void MirrorPlan::add_more(Json &summary) const {
    summary.add_number("remove", m_removed);
}

} // namespace tool
