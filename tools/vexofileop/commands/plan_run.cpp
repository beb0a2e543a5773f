#include "tools/vexofileop/commands/plan_run.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/directory.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/entry_text.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/output/loss_json.h"
#include "tools/vexofileop/terminal/progress_bar.h"
#include "tools/vexofileop/terminal/signals.h"

#include <fmt/format.h>

namespace tool {
namespace {

// What programs and people read of it.
const char *deed_word(engine::Deed deed) {
    constexpr const char *words[] = {"new", "replace", "merge", "rename", "skip", "fail"};
    return words[static_cast<size_t>(deed)];
}

std::string room_text(int64_t needed, const std::optional<int64_t> &free) {
    return free ? fmt::format("{} of {}", size_text(needed), size_text(*free)) : size_text(needed);
}

std::string number_text(int64_t needed, const std::optional<int64_t> &free) {
    return free ? fmt::format("{} of {}", needed, *free) : std::to_string(needed);
}

} // namespace

bool PlanRun::stopped() const {
    return stop_signal() != 0 || (m_options.stopOnError && m_failed) ||
           (m_options.mostErrors > 0 && m_errors >= m_options.mostErrors);
}

PlanRunOptions plan_options_of(const BatchOptions &batch, bool probe) {
    return {.plan = {.transfer = batch.transfer, .probe = probe},
            .report = batch.report,
            .stopOnError = batch.stopOnError,
            .verbose = batch.verbose,
            .json = batch.json,
            .mostErrors = batch.mostErrors,
            .command = batch.command};
}

int PlanRun::run(const std::vector<Errand> &errands) {
    plan(errands);
    return finish();
}

void PlanRun::plan(const std::vector<Errand> &errands) {
    engine::raise_descriptor_limit();
    m_asked = number_of(errands);
    for (const Errand &errand : errands) {
        if (stopped()) {
            break;
        }
        m_report.begin(errand.source, errand.destination);
        if (!errand.below) {
            m_planner.run(errand.source, errand.destination);
            continue;
        }
        const engine::NamesBelow how = names_below(*errand.below, m_options.plan.transfer);
        m_directoriesAlone = how.directoriesAlone;
        for (auto name = errand.below->names.begin(); name != errand.below->names.end() && !stopped(); ++name) {
            m_planner.run_below(errand.source, errand.destination, *name, how);
        }
    }
    m_planner.finish();
}

void PlanRun::entry(const engine::PlannedEntry &planned) {
    const bool directory = planned.kind == engine::EntryKind::directory;
    const bool failed = planned.deed == engine::Deed::fail;
    const bool done = !failed && planned.deed != engine::Deed::skip;
    ++m_deeds[static_cast<size_t>(planned.deed)];
    m_directories += directory && done && !planned.uncounted ? 1 : 0;
    m_files += directory ? 0 : 1;
    m_done += !directory && (done || planned.sourceGoes) ? 1 : 0;
    m_same += planned.same ? 1 : 0;
    m_succeeded += !directory && !failed ? 1 : 0;
    m_anyFailed = m_anyFailed || (!directory && failed);
    m_failed = m_failed || failed;
    m_errors += failed || std::ranges::any_of(planned.losses,
                                              [&](const engine::Loss &loss) {
                                                  return engine::fails(loss, m_options.plan.transfer.accepted);
                                              })
                    ? 1
                    : 0;
    m_cloned += planned.cloned ? 1 : 0;
    m_bytes += done ? planned.bytes : 0;
    m_staying += planned.sourceStays ? 1 : 0;
    say(planned);
    report(planned);
    for (const engine::Loss &loss : planned.losses) {
        tell_loss(planned.source, planned.destination, loss, "  ");
    }
}

void PlanRun::tell_loss(const std::string &source, const std::string &destination, const engine::Loss &loss,
                        const char *indent) {
    m_failed = m_receipt.add(source, destination, loss) || m_failed;
    if (m_options.json) {
        m_console.line(loss_event(source, destination, loss).line());
    } else if (m_options.verbose) {
        m_console.line(indent + loss_text(source, destination, loss));
    }
}

void PlanRun::loss(const std::string &source, const std::string &destination, const engine::Loss &loss) {
    if (!m_options.report.empty()) {
        m_report.loss(source, destination, loss);
    }
    tell_loss(source, destination, loss, "");
}

void PlanRun::report(const engine::PlannedEntry &planned) {
    if (m_options.report.empty()) {
        return;
    }
    const bool moves = m_options.plan.transfer.operation == engine::Operation::move;
    const Fate fate = planned.deed == engine::Deed::fail   ? Fate::failed
                      : planned.same                       ? Fate::same
                      : planned.deed == engine::Deed::skip ? Fate::skipped
                      : planned.cloned                     ? Fate::cloned
                      : moves                              ? Fate::moved
                                                           : Fate::copied;
    if (planned.kind != engine::EntryKind::directory || fate == Fate::failed) {
        m_report.count(fate, 1, planned.bytes);
    }
    engine::Outcome replacing;
    replacing.destination = planned.destination;
    replacing.inPlace = planned.inPlace;
    replacing.oldNames = planned.oldNames;
    replacing.backup = planned.backup;
    m_report.replaced(planned.source, replacing);
    if (planned.problem && (planned.deed != engine::Deed::skip || planned.losses.empty())) {
        m_report.problem(planned.source, planned.destination, planned.problem->reason);
    }
    for (const engine::Loss &loss : planned.losses) {
        m_report.loss(planned.source, planned.destination, loss);
    }
}

// A report that cannot be written is told, and the plan has been told all the same.
int PlanRun::written(int status) {
    if (m_options.report.empty()) {
        return status;
    }
    try {
        m_report.write(m_options.report, status);
        return status;
    } catch (const engine::Failure &failure) {
        m_console.message(failure.what());
        return status == exitAll ? exitSome : status;
    }
}

// Of what is made where nothing stands a number is enough.
void PlanRun::say(const engine::PlannedEntry &planned) {
    if (m_options.json) {
        m_console.line(entry_line(planned));
        return;
    }
    if ((planned.deed == engine::Deed::make || planned.same) && !planned.problem && !m_options.verbose) {
        return;
    }
    std::string text = fmt::format("{}: {} -> {}", deed_word(planned.deed), engine::displayed(planned.source),
                                   engine::displayed(planned.destination));
    if (planned.problem) {
        text = problem_text(text, *planned.problem, kCopyRecursion);
    } else if (planned.deed == engine::Deed::skip) {
        text += planned.sourceGoes ? ": the same already; the source is removed"
                : planned.same     ? ": the same already"
                                   : ": destination exists";
    }
    text += planned.backup.empty() ? "" : fmt::format(" (backup: {})", engine::displayed(planned.backup));
    text += planned.cloned ? " (cloned)" : planned.linked ? " (linked)" : "";
    text += planned.inPlace ? " (in place)" : "";
    m_console.line(text + (planned.oldNames > 0
                               ? fmt::format(" ({} of the old file keep its content)",
                                             planned.oldNames == 1 ? "another name"
                                                                   : fmt::format("{} other names", planned.oldNames))
                               : ""));
}

std::string PlanRun::entry_line(const engine::PlannedEntry &planned) const {
    Json event;
    event.add_text("event", "plan");
    event.add_text("operation", word_of(m_options.plan.transfer.operation));
    event.add_text("kind", word_of(planned.kind));
    event.add_text("action", deed_word(planned.deed));
    event.add_name("source", planned.source);
    event.add_name("destination", planned.destination);
    if (planned.kind == engine::EntryKind::file) {
        event.add_number("bytes", planned.bytes);
        event.add_flag("cloned", planned.cloned);
    }
    if (planned.same) {
        event.add_flag("same", true);
    }
    if (planned.linked) {
        event.add_flag("linked", true);
    }
    add_replaced(event, planned.inPlace, planned.backup, planned.oldNames, {});
    if (planned.sourceStays) {
        event.add_flag("source_kept", true);
    }
    if (planned.sourceGoes) {
        event.add_flag("source_removed", true);
    }
    if (planned.problem) {
        event.add_object("error", problem_object(*planned.problem, kCopyRecursion));
    }
    return event.line();
}

void PlanRun::tell_room(const engine::VolumePlan &volume) {
    const engine::FreeRoom &free = volume.free;
    if (m_options.json) {
        Json event;
        event.add_text("event", "room");
        event.add_name("directory", volume.directory);
        event.add_number("bytes_needed", volume.needed.bytes);
        event.add_number("inodes_needed", volume.needed.inodes);
        const auto add = [&](const char *name, const std::optional<int64_t> &number) {
            if (number) {
                event.add_number(name, *number);
            }
        };
        add("bytes_free", free.bytes);
        add("inodes_free", free.inodes);
        add("quota_bytes_free", free.quotaBytes);
        add("quota_inodes_free", free.quotaInodes);
        if (volume.project != 0) {
            event.add_number("project", volume.project);
        }
        event.add_flag("probed", volume.probed);
        m_console.line(event.line());
        return;
    }
    std::string text =
        fmt::format("{}{}: needs {}, {} inodes", engine::displayed(volume.directory),
                    volume.project != 0 ? fmt::format(", project {}", volume.project) : "",
                    room_text(volume.needed.bytes, free.bytes), number_text(volume.needed.inodes, free.inodes));
    if (free.quotaBytes || free.quotaInodes) {
        text += fmt::format("; of the quota {}, {} inodes", room_text(volume.needed.bytes, free.quotaBytes),
                            number_text(volume.needed.inodes, free.quotaInodes));
    }
    m_console.line(text + (volume.probed ? "" : "; not probed"));
}

int PlanRun::finish() {
    const bool signalled = stop_signal() != 0;
    const bool directories = m_directoriesAlone || (m_succeeded == 0 && !m_anyFailed);
    const int succeeded = directories ? static_cast<int>(m_directories) : m_succeeded;
    int status = signalled ? exitSignal + stop_signal() : exit_status(succeeded, m_failed ? 1 : 0);
    if (m_options.allOrNothing && !signalled && m_deeds[static_cast<size_t>(engine::Deed::fail)] > 0) {
        status = exitNone;
    }
    if (signalled) {
        m_console.message("stopped; the plan is not whole");
    }
    if (!m_options.json) {
        for (const std::string &line : m_receipt.lines()) {
            m_console.line(line);
        }
    }
    for (const engine::VolumePlan &volume : m_planner.volumes()) {
        tell_room(volume);
    }
    status = written(status);
    m_console.line(summary_line(status));
    if (!m_console.check_output() && status == exitAll) {
        status = exitSome;
    }
    return status;
}

std::string PlanRun::summary_line(int status) const {
    const auto number = [&](engine::Deed deed) { return m_deeds[static_cast<size_t>(deed)]; };
    if (m_options.json) {
        Json summary;
        summary.add_text("event", "summary");
        summary.add_text("operation", "plan");
        summary.add_text("plan", command());
        for (const engine::Deed deed : {engine::Deed::make, engine::Deed::replace, engine::Deed::merge,
                                        engine::Deed::rename, engine::Deed::skip, engine::Deed::fail}) {
            summary.add_number(deed_word(deed), number(deed));
        }
        summary.add_number("files", m_treeSeen ? m_files : static_cast<int64_t>(m_asked));
        summary.add_number("directories", m_directories);
        summary.add_number("done", m_done);
        if (m_same > 0) {
            summary.add_number("same", m_same);
        }
        summary.add_number("cloned", m_cloned);
        summary.add_number("bytes", m_bytes);
        summary.add_number("sources_kept", m_staying);
        add_more(summary);
        m_receipt.add_to(summary);
        summary.add_flag("cancelled", stop_signal() != 0);
        summary.add_number("exit_status", status);
        return summary.line();
    }
    const std::string same = m_same > 0 ? fmt::format(" ({} the same)", m_same) : "";
    std::string text =
        fmt::format("{} new, {} replaced, {} merged, {} renamed, {} skipped{}, {} failed ({} {}, {})",
                    number(engine::Deed::make), number(engine::Deed::replace), number(engine::Deed::merge),
                    number(engine::Deed::rename), number(engine::Deed::skip), same, number(engine::Deed::fail), m_done,
                    m_done == 1 ? "file" : "files", size_text(m_bytes));
    if (m_cloned > 0) {
        text += fmt::format(", {} cloned", m_cloned);
    }
    if (m_staying > 0) {
        text += fmt::format(", {} of the sources would stay", m_staying);
    }
    return text + more_counts() + fmt::format("; nothing was done, the status would be {}", status);
}

} // namespace tool
