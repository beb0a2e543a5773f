// vexofileop copy and vexofileop move.
#include "tools/engine/report/names.h"
#include "tools/engine/walk/paths.h"
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
    Conflict conflict;
};

Conflict chosen_policy(const Command &command, const std::vector<Policy> &policies) {
    Conflict chosen = Conflict::fail;
    for (const Option &given : command.given_options()) {
        for (const Policy &policy : policies) {
            chosen = policy.option == given ? policy.conflict : chosen;
        }
    }
    return chosen;
}

std::vector<Policy> add_policies(const Command &command) {
    const auto add = [&](const char *names, const char *text, Conflict conflict) {
        return Policy{command.add_flag(names, text), conflict};
    };
    return {
        add("-f,--force", "replace a destination file that exists", Conflict::replace),
        add("-n,--no-clobber", "leave it as it is; counts as a success", Conflict::skip),
        add("-i,--interactive", "ask before replacing it", Conflict::ask),
        add("--keep-both", "give the new file a free name: \"name (1).txt\"", Conflict::keep_both),
    };
}

// The last operand is where the files go. A list has any number of them, so that it needs a directory.
std::vector<Errand> planned(const PathOperands &operands, Operation operation, Conflict conflict) {
    std::vector<std::string> sources = operands.given();
    if (sources.empty() || (sources.size() == 1 && !operands.has_list())) {
        throw UsageError(sources.empty() ? "no file and no destination given" : "no destination given");
    }
    std::string destination = std::move(sources.back());
    sources.pop_back();
    if (operands.has_list()) {
        destination += destination.ends_with('/') ? "" : "/";
        if (conflict == Conflict::ask && operands.has_list_on_stdin()) {
            throw UsageError("-i reads its answers from stdin, which is the list here");
        }
        const std::vector<std::string> more = operands.listed();
        sources.insert(sources.end(), more.begin(), more.end());
    }
    for (const std::string &source : sources) {
        if (operation == Operation::move && names_contents(source)) {
            throw UsageError(fmt::format("{}: give the directory by its name", displayed(source)));
        }
    }
    return plan_errands(sources, destination);
}

constexpr const char *kNotes = "\nMode, owner, times, ACL, DOS attributes and extended metadata go along. Of -f,\n"
                               "-n, -i, --keep-both the last one holds; a directory that exists is merged into.\n"
                               "Exit status: 0 all done, 1 some, 2 none or wrong usage; 130 after Ctrl-C.\n";

void add_transfer_command(const Command &program, int &status, Operation operation) {
    const bool copy = operation == Operation::copy;
    const Command command = program.add_command(
        word_of(operation), copy ? "Copy files and trees with all that is theirs" : "Move or rename files and trees");
    const auto batch = std::make_shared<BatchOptions>();
    BatchOptions &options = *batch;
    options.transfer.operation = operation;
    options.trees = !copy;
    const std::vector<Policy> policies = add_policies(command);
    if (copy) {
        command.add_flag("-r,-R,--recursive", options.trees, "directories too; links in them stay links");
        command.add_flag("--clone", options.transfer.clone, "share the data on btrfs; copy it where that fails");
    }
    command.add_flag("--stop-on-error", options.stopOnError, "end at the first entry that fails");
    command.add_flag("-v,--verbose", options.verbose, "say what is done, and when an owner was not kept");
    command.add_flag("--json", options.json, "one JSON object per line: each entry, then a summary");
    command.add_flag("--no-progress", options.noProgress, "no progress line on a terminal");
    const PathOperands operands(command, "FILE", "FILE... DEST");
    command.set_footer(std::string(kNotes) + (copy ? "Example:\n  vexofileop copy -rn film.mkv photos /volume2/backup"
                                                   : "Examples:\n"
                                                     "  vexofileop move draft.txt final.txt\n"
                                                     "  vexofileop move --keep-both *.jpg /volume2/photo"));
    command.set_work([command, &status, batch, policies, operands] {
        batch->transfer.conflict = chosen_policy(command, policies);
        batch->transfer.links = batch->trees;
        status = Batch(*batch).run(planned(operands, batch->transfer.operation, batch->transfer.conflict));
    });
}

} // namespace

void add_copy_command(const Command &program, int &status) {
    add_transfer_command(program, status, Operation::copy);
}

void add_move_command(const Command &program, int &status) {
    add_transfer_command(program, status, Operation::move);
}

} // namespace tool
