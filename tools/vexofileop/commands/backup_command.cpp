// vexofileop backup run and its plan.
#include "tools/vexofileop/arguments/jobs_option.h"
#include "tools/vexofileop/arguments/loss_classes.h"
#include "tools/vexofileop/arguments/progress_option.h"
#include "tools/vexofileop/arguments/quantity.h"
#include "tools/vexofileop/arguments/report_path.h"
#include "tools/vexofileop/arguments/selection_options.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/arguments/way_options.h"
#include "tools/vexofileop/commands/backup_run.h"
#include "tools/vexofileop/commands/commands.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tool {
namespace {

constexpr const char *kBackupNotes =
    "\nFiles with the archive bit are copied into DST as by \"copy -ru\" and read back;\n"
    "then the bit of each goes that is proven to be there and has not changed since.\n"
    "What was deleted in SRC stays in DST. DST.TIME.list says what went.\n"
    "Exit status: 0 all of it is in DST, 1 not all, 2 nothing done or wrong usage.\n";

class BackupArguments {
  public:
    BackupArguments(const Command &command, bool plan)
        : m_command(command), m_plan(plan), m_accept(add_accept_option(command)), m_report(add_report_option(command)),
          m_maxErrors(command.rare().add_value("--max-errors", "N", "end at the Nth entry that fails")),
          m_ways(command), m_selection(command), m_operands(command.add_operands("SRC", "SRC DST")) {
        engine::TransferOptions &transfer = m_options.batch.transfer;
        transfer.conflict = engine::Conflict::update;
        transfer.checksum = transfer.verify = true;
        transfer.links = transfer.trees = true;
        transfer.exact = true;
        transfer.proofs = true;
        m_options.batch.command = "backup";
        m_options.batch.eachEntry = true;
        command.add_flag("--full", m_options.full, "everything, whether it has the archive bit or not");
        command.add_flag("--keep-bits", m_options.keepBits, "clear none: the next backup takes the same, too");
        const Command rare = command.rare();
        rare.add_flag("--specials", transfer.specials, "make pipes, devices and sockets anew; else they are a loss");
        rare.add_flag("--no-hard-links", m_noHardLinks, "names of one file become files of their own");
        rare.add_flag("--stop-on-error", m_options.batch.stopOnError, "end at the first entry that fails");
        add_output();
    }

    int run() {
        BatchOptions &batch = m_options.batch;
        const std::vector<std::string> paths = m_operands.values();
        if (paths.size() != 2) {
            throw UsageError("give the directory and the one that its backup goes to");
        }
        batch.report = report_path_of(m_report);
        batch.transfer.selection = m_selection.chosen();
        if (m_options.full && batch.transfer.selection.archivedAlone) {
            throw UsageError("--full takes what has no archive bit, too, and --archive-bit does not");
        }
        batch.transfer.selection.archivedAlone = !m_options.full;
        batch.transfer.accepted = loss_set_of(m_accept, "--accept");
        batch.transfer.hardLinks = !m_noHardLinks;
        m_ways.apply(batch.transfer);
        // A bit that is cleared stays cleared after a power failure: what it stands for has to be there, too.
        if (batch.transfer.sync == engine::Sync::none) {
            batch.transfer.sync = engine::Sync::volume;
        }
        batch.mostErrors = m_maxErrors.given() ? parse_count("--max-errors", m_maxErrors.values().front(), 1) : 0;
        const ProgressOption::Wanted progress = m_progress->wanted();
        batch.noProgress = progress.none;
        batch.progressLines = progress.lines;
        const engine::MirrorPair pair(paths[0], paths[1], batch.transfer.selection.oneFileSystem,
                                      "what is copied to the one would come into the other");
        refuse_backups(pair, batch.transfer.backup);
        refuse_no_probe(m_noProbe, m_plan);
        if (!m_plan) {
            return BackupRun(m_options, pair).run();
        }
        PlanRunOptions options = plan_options_of(batch, !m_noProbe);
        options.plan.traceless = true; // nobody has asked for the checksum
        return BackupPlan(options, m_options, pair).run();
    }

  private:
    void add_output() {
        BatchOptions &batch = m_options.batch;
        const Command rare = m_command.rare();
        m_command.add_flag("-v,--verbose", batch.verbose, "say what is done, and all that is not carried");
        m_command.add_flag("--json", batch.json, "one JSON object per line: each entry, then a summary");
        if (m_plan) {
            m_command.add_flag("--no-probe", m_noProbe, "make nothing at the destination; believe the system");
            rare.add_flag("-q,--quiet", "accepted: a plan is there to be told");
            add_jobs_option(m_command, batch.jobs, "accepted: a plan is made by one process");
            m_progress.emplace(m_command, ProgressOption::Of::plan);
            return;
        }
        m_command.add_flag("--dry-run", m_plan, "do nothing; tell what \"plan backup\" tells");
        add_dry_no_probe(m_command, m_noProbe);
        add_jobs_option(m_command, batch.jobs);
        rare.add_flag("-q,--quiet", batch.quiet, "say nothing but what fails; no progress line");
        m_progress.emplace(m_command);
    }

    Command m_command;
    BackupRunOptions m_options;
    bool m_plan, m_noProbe = false, m_noHardLinks = false;
    Option m_accept, m_report, m_maxErrors;
    std::optional<ProgressOption> m_progress;
    WayOptions m_ways;
    SelectionOptions m_selection;
    Option m_operands;
};

Command add_backup(const Command &parent, int &status, bool plan) {
    const Command command = plan ? parent.add_command("backup", "Tell what a backup would do")
                                 : parent.add_command("run", "Back up what was changed since the last backup");
    const auto arguments = std::make_shared<BackupArguments>(command, plan);
    command.set_footer(plan ? "\nNothing is done. What would go is told as by \"plan copy -ru\", and how many\n"
                              "archive bits would be cleared.\n"
                              "Example:\n  vexofileop plan backup photos /volume2/photos"
                            : std::string(kBackupNotes) +
                                  "Examples:\n  vexofileop backup run --full photos /volume2/photos\n"
                                  "  vexofileop backup run photos /volume2/photos");
    command.set_work([&status, arguments] { status = arguments->run(); });
    return command;
}

} // namespace

void add_backup_command(const Command &program, int &status) {
    const Command command = program.add_command("backup", "Back up by the archive bit");
    command.require_command();
    command.set_footer("\nClients set the archive bit of what they change, and a backup clears it.\n"
                       "Each command explains itself: vexofileop backup run --help\n"
                       "Example:\n"
                       "  vexofileop backup run --full photos /volume2/photos");
    add_backup(command, status, false);
}

Command add_backup_plan(const Command &plan, int &status) {
    return add_backup(plan, status, true);
}

} // namespace tool
