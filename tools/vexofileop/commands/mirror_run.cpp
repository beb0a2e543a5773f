#include "tools/vexofileop/commands/mirror_run.h"

#include "tools/engine/mirror/kept_surplus.h"
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
#include <cstring>
#include <fmt/format.h>
#include <sys/stat.h>

namespace tool {
namespace {

constexpr const char *kEmpty = "the source is empty; with --allow-empty everything is removed that it has not";

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
void add_refusal(Json &summary, const char *why, int64_t left) {
    if (left > 0) {
        summary.add_number("left", left);
    }
    if (why != nullptr) {
        summary.add_text("removal_refused", why);
    }
}

const char *plural(int64_t number) {
    return number == 1 ? "entry" : "entries";
}

} // namespace

void refuse_backups(const engine::MirrorPair &pair, const engine::BackupOptions &backup) {
    const std::string refusal = pair.refusal_of_backups(backup);
    if (!refusal.empty()) {
        throw UsageError("--backup-dir: " + refusal);
    }
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
        refuse("empty-source");
        return false;
    }
    if (m_surplus == 0 || m_mirror.force || m_mirror.ask || stop_signal() != 0) {
        return stop_signal() == 0;
    }
    const bool agreed = m_console.confirm(fmt::format("{}: {} {} that {} has not will be removed; go ahead?",
                                                      engine::displayed(m_pair.destination), m_surplus,
                                                      plural(m_surplus), engine::displayed(m_pair.source)));
    if (!agreed && stop_signal() == 0) {
        refuse("declined");
    }
    return agreed;
}

// What stays is known where it was counted.
void MirrorRun::refuse(const char *why) {
    m_refused = why;
    m_left = std::max<int64_t>(m_surplus - m_removed, 0);
}

int MirrorRun::run() {
    engine::raise_descriptor_limit();
    if (!may_begin()) {
        m_failed = true;
        return finish(1);
    }
    copy({{m_pair.source + "/.", m_pair.destination}});
    if (stopped() || m_passes.incomplete()) {
        if (m_surplus != 0) {
            m_console.message("nothing is removed, for not everything was copied");
            refuse("incomplete");
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
    m_console.start_phase("remove");
    if (m_passes.has_late()) {
        surplus.run(m_pair.source, m_pair.destination, engine::Surplus::obstacle);
        complete = !stopped();
        if (complete) { // what was cleared is filled in any case
            m_passes.copy_late(m_pair, m_options.transfer, *this);
            complete = !m_passes.incomplete() && surplus.failed() == 0;
        }
    }
    if (complete && !stopped()) {
        surplus.run(m_pair.source, m_pair.destination, engine::Surplus::extra);
    } else if (m_surplus != 0) {
        m_console.message("nothing else is removed, for not everything was copied");
        m_failed = true;
    }
    m_removed = surplus.removed();
    m_console.removed(m_removed);
    m_console.end_progress();
    m_backups += static_cast<int>(surplus.backups());
    if (surplus.was_limited()) {
        refuse("max-delete");
        m_left = std::max<int64_t>(m_left, 1);
    } else if (!complete || surplus.was_refused()) {
        refuse(complete ? "declined" : "incomplete");
    }
    if (m_removed > 0) {
        volumes.write_out(*this);
    }
    m_failed =
        m_failed || surplus.failed() > 0 || surplus.mounts() > 0 || surplus.was_refused() || surplus.was_limited();
    if (surplus.was_limited()) {
        m_console.message(fmt::format("{} {} {} not removed, for --max-delete is {}", m_left, plural(m_left),
                                      m_left == 1 ? "was" : "were", m_mirror.most));
    }
}

void MirrorRun::entry(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) {
    if (m_passes.tells(kind, source, outcome)) {
        Batch::entry(kind, source, outcome);
    }
}

void MirrorRun::arrived(const std::string &directory, int files, int64_t bytes) {
    if (m_passes.tells_arrivals()) {
        Batch::arrived(directory, files, bytes);
    }
}

std::string MirrorRun::more_counts() const {
    return fmt::format(", {} removed", m_removed);
}

void MirrorRun::add_more(Json &summary) const {
    summary.add_number("removed", m_removed);
    add_refusal(summary, m_refused, m_left);
}

// As the run may: nothing is planned where it would end before it does anything.
bool MirrorPlan::may_begin(const SurplusRun::Options &counting) {
    const auto holds = engine::holds_anything(m_pair.source, m_options.plan.transfer.selection);
    if (!holds) {
        m_console.message(fmt::format("{}: {}", engine::displayed(m_pair.source), std::strerror(errno)));
        return false;
    }
    if (*holds || m_mirror.allowEmpty || !m_pair.exists) {
        return true;
    }
    m_left = counted_surplus(counting);
    if (m_left > 0 && !stopped()) {
        m_console.message(fmt::format("{}: {}", engine::displayed(m_pair.source), kEmpty));
        m_refused = "empty-source";
    }
    return m_left == 0;
}

int MirrorPlan::run() {
    const SurplusRun::Options options{.surplus = engine_options(m_mirror, true),
                                      .most = m_mirror.most,
                                      .verbose = m_options.verbose,
                                      .json = m_options.json,
                                      .report = !m_options.report.empty(),
                                      .stopped = [this] { return stopped(); }};
    SurplusRun::Options counting = options;
    counting.silent = true;
    counting.most = -1;
    if (!may_begin(counting)) {
        m_failed = true;
        return finish();
    }
    plan({{m_pair.source + "/.", m_pair.destination}});
    plan_late(options);
    if (m_pair.exists && !stopped()) {
        SurplusRun surplus(m_incomplete ? counting : options, m_console, m_report);
        surplus.run(m_pair.source, m_pair.destination, engine::Surplus::obstacle);
        const bool blocked = surplus.failed() > 0 && !m_incomplete;
        if (blocked) {
            m_console.message("nothing else would be removed, for not everything can be copied");
            m_refused = "incomplete";
        } else {
            surplus.run(m_pair.source, m_pair.destination, engine::Surplus::extra);
        }
        m_removed = surplus.removed();
        m_failed = m_failed || surplus.failed() > 0 || surplus.mounts() > 0 || surplus.was_limited();
        if (m_incomplete && (m_left = std::exchange(m_removed, 0)) > 0) {
            m_refused = "incomplete";
            m_console.message("nothing would be removed, for not everything can be copied");
            m_failed = true;
        } else if (surplus.was_limited()) {
            m_refused = "max-delete";
            m_left = counted_surplus(counting) - m_removed;
            m_console.message(fmt::format("no more would be removed, for --max-delete is {}", m_mirror.most));
        }
    } else if (m_pair.exists && stop_signal() == 0) {
        m_console.message("nothing would be removed, for not everything can be copied");
        m_refused = "incomplete";
    }
    return finish();
}

// What would go if there were no limit.
int64_t MirrorPlan::counted_surplus(const SurplusRun::Options &counting) {
    SurplusRun all(counting, m_console, m_report);
    all.run(m_pair.source, m_pair.destination, engine::Surplus::obstacle);
    all.run(m_pair.source, m_pair.destination, engine::Surplus::extra);
    return all.removed();
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
    if (!m_meant.empty() && engine::lies_below(told.destination, m_standIn)) {
        told.destination = m_meant + told.destination.substr(m_standIn.size());
    }
    if (m_meant.empty() && told.deed == engine::Deed::fail && engine::is_in_the_way(told.kind, told.destination)) {
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
    add_refusal(summary, m_refused, m_left);
}

} // namespace tool
