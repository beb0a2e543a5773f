// vexofileop copy and vexofileop move, and the plans of both.
#include "tools/engine/report/names.h"
#include "tools/vexofileop/arguments/errands.h"
#include "tools/vexofileop/arguments/loss_classes.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/arguments/report_path.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/batch.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/plan_run.h"

#include <fmt/format.h>
#include <memory>
#include <string>
#include <vector>

namespace tool {
namespace {

// Of several policies the last one given holds, so that an alias can be overridden.
struct Policy {
    Option option;
    engine::Conflict conflict;
};

engine::Conflict chosen_policy(const Command &command, const std::vector<Policy> &policies) {
    engine::Conflict chosen = engine::Conflict::fail;
    for (const Option &given : command.given_options()) {
        for (const Policy &policy : policies) {
            chosen = policy.option == given ? policy.conflict : chosen;
        }
    }
    return chosen;
}

std::vector<Policy> add_policies(const Command &command) {
    const auto add = [&](const char *names, const char *text, engine::Conflict conflict) {
        return Policy{command.add_flag(names, text), conflict};
    };
    return {
        add("-f,--force", "replace a destination file that exists", engine::Conflict::replace),
        add("-n,--no-clobber", "leave it as it is; counts as a success", engine::Conflict::skip),
        add("-i,--interactive", "ask before replacing it", engine::Conflict::ask),
        add("--keep-both", "give the new file a free name: \"name (1).txt\"", engine::Conflict::keep_both),
    };
}

// The last operand is where the files go. A list has any number of them, so that it needs a directory.
std::vector<Errand> planned(const PathOperands &operands, engine::Operation operation, engine::Conflict conflict) {
    std::vector<std::string> sources = operands.given();
    if (sources.empty() || (sources.size() == 1 && !operands.has_list())) {
        throw UsageError(sources.empty() ? "no file and no destination given" : "no destination given");
    }
    std::string destination = std::move(sources.back());
    sources.pop_back();
    if (operands.has_list()) {
        destination += destination.ends_with('/') ? "" : "/";
        if (conflict == engine::Conflict::ask && operands.has_list_on_stdin()) {
            throw UsageError("-i reads its answers from stdin, which is the list here");
        }
        const std::vector<std::string> more = operands.listed();
        sources.insert(sources.end(), more.begin(), more.end());
    }
    for (const std::string &source : sources) {
        if (operation == engine::Operation::move && names_contents(source)) {
            throw UsageError(fmt::format("{}: give the directory by its name", engine::displayed(source)));
        }
    }
    return plan_errands(sources, destination);
}

constexpr const char *kNotes = "\nMode, owner, times, ACL, DOS attributes and extended metadata go along. Of -f,\n"
                               "-n, -i, --keep-both the last one holds; a directory that exists is merged into.\n"
                               "Exit status: 0 all done and nothing lost that --accept does not name, 1 some,\n"
                               "2 none or wrong usage; 130 after Ctrl-C.\n";

constexpr const char *kPlanNotes = "\nNothing is done. Entries that are not simply new are told (-v: all), then what\n"
                                   "would be lost, by class, the room that is needed and is there, and the status\n"
                                   "of the run, which is that of the plan too. What a volume takes is tried in a\n"
                                   "private directory of the destination, removed again, where its times can be\n"
                                   "put back; else, or with --no-probe, the system is believed. -i means yes.\n";

int planned_status(const BatchOptions &batch, bool probe, const std::vector<Errand> &errands) {
    const PlanRunOptions options{
        {.transfer = batch.transfer, .probe = probe}, batch.report, batch.stopOnError, batch.verbose, batch.json};
    return PlanRun(options).run(errands);
}

enum class Act { run, plan };

void add_transfer_command(const Command &program, int &status, engine::Operation operation, Act act) {
    const bool copy = operation == engine::Operation::copy, run = act == Act::run;
    const Command command = program.add_command(
        word_of(operation), !run   ? (copy ? "Tell what a copy would do" : "Tell what a move would do")
                            : copy ? "Copy files and trees with all that is theirs"
                                   : "Move or rename files and trees");
    const auto batch = std::make_shared<BatchOptions>();
    BatchOptions &options = *batch;
    options.transfer.operation = operation;
    options.transfer.trees = !copy;
    const std::vector<Policy> policies = add_policies(command);
    if (copy) {
        command.add_flag("-r,-R,--recursive", options.transfer.trees, "directories too; links in them stay links");
        command.add_flag("--clone", options.transfer.clone, "share the data on btrfs; copy it where that fails");
    }
    const Option accept = add_accept_option(command);
    const Option report = add_report_option(command);
    if (run) {
        command.add_flag("--verify", options.transfer.verify, "read each file back and compare it with its source");
    }
    command.add_flag("--stop-on-error", options.stopOnError, "end at the first entry that fails");
    command.add_flag("-v,--verbose", options.verbose, "say what is done, and all that is not carried");
    command.add_flag("--json", options.json, "one JSON object per line: each entry, then a summary");
    const auto plan = std::make_shared<bool>(!run), noProbe = std::make_shared<bool>(false);
    if (run) {
        command.add_flag("--no-progress", options.noProgress, "no progress line on a terminal");
        command.add_flag("--dry-run", *plan, "do nothing; tell what would be done, as \"plan\" does");
    } else {
        command.add_flag("--no-probe", *noProbe, "make nothing at the destination; believe the system");
    }
    const PathOperands operands(command, "FILE", "FILE... DEST");
    const std::string notes = run ? kNotes : kPlanNotes;
    if (!run) {
        command.set_footer(notes + "Example:\n  vexofileop plan " + word_of(operation) + (copy ? " -r" : "") +
                           " photos /volume2/backup");
    } else {
        command.set_footer(notes + (copy ? "Example:\n  vexofileop copy -rn film.mkv photos /volume2/backup"
                                         : "Examples:\n"
                                           "  vexofileop move draft.txt final.txt\n"
                                           "  vexofileop move --keep-both *.jpg /volume2/photo"));
    }
    command.set_work([command, &status, batch, plan, noProbe, policies, operands, accept, report] {
        batch->report = report_path_of(report);
        batch->transfer.accepted = loss_set_of(accept, "--accept");
        batch->transfer.conflict = chosen_policy(command, policies);
        batch->transfer.links = batch->transfer.trees;
        const std::vector<Errand> errands = planned(operands, batch->transfer.operation, batch->transfer.conflict);
        status = *plan ? planned_status(*batch, !*noProbe, errands) : Batch(*batch).run(errands);
    });
}

} // namespace

void add_copy_command(const Command &program, int &status) {
    add_transfer_command(program, status, engine::Operation::copy, Act::run);
}

void add_move_command(const Command &program, int &status) {
    add_transfer_command(program, status, engine::Operation::move, Act::run);
}

void add_plan_command(const Command &program, int &status) {
    const Command command = program.add_command("plan", "Tell what a copy or a move would do and lose");
    command.require_command();
    command.set_footer("\nExample:\n  vexofileop plan copy -r photos /volume2/backup");
    add_transfer_command(command, status, engine::Operation::copy, Act::plan);
    add_transfer_command(command, status, engine::Operation::move, Act::plan);
}

} // namespace tool
