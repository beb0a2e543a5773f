// vexofileop copy and vexofileop move.
#include "tools/engine/report/names.h"
#include "tools/vexofileop/arguments/errands.h"
#include "tools/vexofileop/arguments/loss_classes.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/arguments/report_path.h"
#include "tools/vexofileop/arguments/selection_options.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/batch.h"
#include "tools/vexofileop/commands/commands.h"

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

// Where the files go: -t and -T.
struct TargetOptions {
    explicit TargetOptions(const Command &command)
        : directory(command.rare().add_value("-t,--target-directory", "DIR", "all of them go into this directory")),
          newName(command.rare().add_flag("-T,--no-target-directory",
                                          "DEST is the new name, also where it is a directory")) {
        directory.excludes(newName);
    }
    Target kind() const {
        return directory.given() ? Target::directory : newName.given() ? Target::new_name : Target::as_it_is;
    }
    Option directory, newName;
};

// The last operand is where the files go, where no option says so. A list has any number of them, so that it needs a
// directory.
std::vector<Errand> planned(const PathOperands &operands, const TargetOptions &target, engine::Operation operation,
                            engine::Conflict conflict) {
    std::vector<std::string> sources = operands.given();
    const Target kind = target.kind();
    const bool last = kind != Target::directory;
    if (sources.size() < (operands.has_list() ? 0U : 1U) + (last ? 1U : 0U)) {
        throw UsageError(!last             ? "no file given"
                         : sources.empty() ? "no file and no destination given"
                                           : "no destination given");
    }
    std::string destination = last ? sources.back() : target.directory.values().front();
    if (destination.empty()) {
        throw UsageError("an empty path was given");
    }
    if (last) {
        sources.pop_back();
    }
    if (operands.has_list()) {
        if (kind == Target::new_name) {
            throw UsageError("a list of files needs a directory to go into, and -T names none");
        }
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
    return plan_errands(sources, destination, kind);
}

constexpr const char *kNotes = "\nMode, owner, times, ACL, DOS attributes and extended metadata go along. Of -f,\n"
                               "-n, -i, --keep-both the last one holds; a directory that exists is merged into.\n"
                               "Exit status: 0 all done and nothing lost that --accept does not name, 1 some,\n"
                               "2 none or wrong usage; 130 after Ctrl-C.\n";

void add_transfer_command(const Command &program, int &status, engine::Operation operation) {
    const bool copy = operation == engine::Operation::copy;
    const Command command = program.add_command(
        word_of(operation), copy ? "Copy files and trees with all that is theirs" : "Move or rename files and trees");
    const auto batch = std::make_shared<BatchOptions>();
    BatchOptions &options = *batch;
    options.transfer.operation = operation;
    options.transfer.trees = !copy;
    const std::vector<Policy> policies = add_policies(command);
    if (copy) {
        command.add_flag("-r,-R,-a,--recursive,--archive", options.transfer.trees,
                         "directories too; links in them stay links");
        command.add_flag("--clone", options.transfer.clone, "share the data on btrfs; copy it where that fails");
    }
    const Option accept = add_accept_option(command);
    const Option report = add_report_option(command);
    command.add_flag("--verify", options.transfer.verify, "read each file back and compare it with its source");
    command.rare().add_flag(copy ? "-p,--preserve" : "-r,-R,-a,-p", copy ? "accepted: everything goes along anyway"
                                                                         : "accepted: this is what a move does anyway");
    const auto target = std::make_shared<TargetOptions>(command);
    command.rare().add_flag("--stop-on-error", options.stopOnError, "end at the first entry that fails");
    command.add_flag("-v,--verbose", options.verbose, "say what is done, and all that is not carried");
    command.add_flag("-q,--quiet", options.quiet, "say nothing but what fails; no progress line");
    command.add_flag("--json", options.json, "one JSON object per line: each entry, then a summary");
    command.rare().add_flag("--no-progress", options.noProgress, "no progress line on a terminal");
    const SelectionOptions selection(command);
    const PathOperands operands(command, "FILE", "FILE... DEST");
    command.set_footer(std::string(kNotes) + (copy ? "Example:\n  vexofileop copy -rn film.mkv photos /volume2/backup"
                                                   : "Examples:\n"
                                                     "  vexofileop move draft.txt final.txt\n"
                                                     "  vexofileop move --keep-both *.jpg /volume2/photo"));
    command.set_work([command, &status, batch, policies, target, selection, operands, accept, report] {
        batch->transfer.selection = selection.chosen();
        batch->report = report_path_of(report);
        batch->transfer.accepted = loss_set_of(accept, "--accept");
        batch->transfer.conflict = chosen_policy(command, policies);
        batch->transfer.links = batch->transfer.trees;
        status = Batch(*batch).run(planned(operands, *target, batch->transfer.operation, batch->transfer.conflict));
    });
}

} // namespace

void add_copy_command(const Command &program, int &status) {
    add_transfer_command(program, status, engine::Operation::copy);
}

void add_move_command(const Command &program, int &status) {
    add_transfer_command(program, status, engine::Operation::move);
}

} // namespace tool
