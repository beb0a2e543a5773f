// vexofileop mirror and its plan.
#include "tools/vexofileop/arguments/jobs_option.h"
#include "tools/vexofileop/arguments/loss_classes.h"
#include "tools/vexofileop/arguments/progress_option.h"
#include "tools/vexofileop/arguments/quantity.h"
#include "tools/vexofileop/arguments/report_path.h"
#include "tools/vexofileop/arguments/selection_options.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/arguments/way_options.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/mirror_run.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tool {
namespace {

constexpr const char *kMirrorNotes =
    "\nWhat SRC has is copied as by \"copy -ru\"; then what DST has and SRC has not is\n"
    "removed, only when nothing failed to be read or copied. What only loses\n"
    "something on the way is told, and keeps nothing from being removed. It asks\n"
    "once (of -f and -i the last one holds). What --exclude leaves out stays.\n"
    "Exit status: 0 DST is equal, 1 not in all, 2 nothing done or wrong usage.\n";

class MirrorArguments {
  public:
    MirrorArguments(const Command &command, bool plan)
        : m_command(command), m_plan(plan),
          m_force(command.add_flag("-f,-y,--force,--yes", "do not ask before something is removed")),
          m_ask(command.add_flag("-i,--interactive", "ask before each removal")),
          m_most(command.add_value("--max-delete", "N", "remove no more than N entries; tell what is left")),
          m_accept(add_accept_option(command)), m_report(add_report_option(command)),
          m_maxErrors(command.rare().add_value("--max-errors", "N", "end at the Nth entry that fails")),
          m_ways(command), m_selection(command), m_operands(command.add_operands("SRC", "SRC DST")) {
        engine::TransferOptions &transfer = m_options.batch.transfer;
        transfer.conflict = engine::Conflict::update;
        transfer.links = true;
        transfer.trees = true;
        transfer.exact = true;
        m_options.batch.command = "mirror";
        const Command rare = command.rare();
        rare.add_flag("--delete-excluded", m_options.leftOutToo, "remove what --exclude leaves out, too");
        command.add_flag("--allow-empty", m_options.allowEmpty, "go ahead where SRC holds nothing at all");
        rare.add_flag("--checksum", transfer.checksum, "read what seems to be the same");
        rare.add_flag("--specials", transfer.specials, "make pipes, devices and sockets anew; else they are a loss");
        rare.add_flag("--no-hard-links", m_noHardLinks, "names of one file become files of their own");
        rare.add_flag("--stop-on-error", m_options.batch.stopOnError, "end at the first entry that fails");
        add_output();
    }

    int run() {
        BatchOptions &batch = m_options.batch;
        const std::vector<std::string> paths = m_operands.values();
        if (paths.size() != 2) {
            throw UsageError("give the directory and the one that is to be equal to it");
        }
        for (const Option &given : m_command.given_options()) {
            m_options.force = given == m_force || (m_options.force && given != m_ask);
            m_options.ask = given == m_ask || (m_options.ask && given != m_force);
        }
        batch.report = report_path_of(m_report);
        batch.transfer.selection = m_selection.chosen();
        batch.transfer.accepted = loss_set_of(m_accept, "--accept");
        batch.transfer.hardLinks = !m_noHardLinks;
        m_ways.apply(batch.transfer);
        batch.mostErrors = m_maxErrors.given() ? parse_count("--max-errors", m_maxErrors.values().front(), 1) : 0;
        if (m_progress) {
            const ProgressOption::Wanted progress = m_progress->wanted();
            batch.noProgress = progress.none;
            batch.progressLines = progress.lines;
        }
        m_options.most = m_most.given() ? parse_count("--max-delete", m_most.values().front(), 0) : -1;
        const engine::MirrorPair pair(paths[0], paths[1], batch.transfer.selection.oneFileSystem);
        refuse_backups(pair, batch.transfer.backup);
        refuse_no_probe(m_noProbe, m_plan);
        if (!m_plan) {
            return MirrorRun(m_options, pair).run();
        }
        const PlanRunOptions options = plan_options_of(batch, !m_noProbe);
        return MirrorPlan(options, m_options, pair).run();
    }

  private:
    void add_output() {
        BatchOptions &batch = m_options.batch;
        m_command.add_flag("-v,--verbose", batch.verbose, "say what is done, and all that is not carried");
        m_command.add_flag("--json", batch.json, "one JSON object per line: each entry, then a summary");
        if (m_plan) {
            const Command rare = m_command.rare();
            m_command.add_flag("--no-probe", m_noProbe, "make nothing at the destination; believe the system");
            rare.add_flag("--verify", batch.transfer.verify, "accepted: the run reads back, a plan does not");
            rare.add_flag("-q,--quiet", "accepted: a plan is there to be told");
            add_jobs_option(m_command, batch.jobs, "accepted: a plan is made by one process");
            m_progress.emplace(m_command, ProgressOption::Of::plan);
            return;
        }
        m_command.add_flag("--dry-run", m_plan, "do nothing; tell what \"plan mirror\" tells");
        add_dry_no_probe(m_command, m_noProbe);
        m_command.add_flag("--verify", batch.transfer.verify, "read each file back and compare it with its source");
        add_jobs_option(m_command, batch.jobs);
        m_command.rare().add_flag("-q,--quiet", batch.quiet, "say nothing but what fails; no progress line");
        m_progress.emplace(m_command);
    }

    Command m_command;
    MirrorOptions m_options;
    bool m_plan, m_noProbe = false, m_noHardLinks = false;
    Option m_force, m_ask, m_most, m_accept, m_report, m_maxErrors;
    std::optional<ProgressOption> m_progress;
    WayOptions m_ways;
    SelectionOptions m_selection;
    Option m_operands;
};

Command add(const Command &program, int &status, bool plan) {
    const Command command = program.add_command("mirror", plan ? "Tell what a mirror would do and remove"
                                                               : "Make a directory equal to another");
    const auto arguments = std::make_shared<MirrorArguments>(command, plan);
    command.set_footer(plan ? "\nNothing is done. Every removal is told, and the rest as by \"plan copy -ru\".\n"
                              "Example:\n  vexofileop plan mirror photos /volume2/photos"
                            : std::string(kMirrorNotes) + "Example:\n  vexofileop mirror photos /volume2/photos");
    command.set_work([&status, arguments] { status = arguments->run(); });
    return command;
}

} // namespace

void add_mirror_command(const Command &program, int &status) {
    add(program, status, false);
}

Command add_mirror_plan(const Command &plan, int &status) {
    return add(plan, status, true);
}

} // namespace tool
