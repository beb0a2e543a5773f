// vexofileop copy and vexofileop move.
#include "tools/vexofileop/batch.h"
#include "tools/vexofileop/commands.h"
#include "tools/vexofileop/names.h"
#include "tools/vexofileop/paths.h"

#include <fmt/format.h>
#include <memory>
#include <string>
#include <vector>

namespace tool {
namespace {

struct Arguments {
    BatchOptions batch;
    std::vector<std::string> sources;
    std::string destination;
};

// Of several policies the last one given holds, so that an alias can be overridden.
struct Policy {
    CLI::Option *option;
    Conflict conflict;
};

Conflict chosen_policy(const CLI::App &command, const std::vector<Policy> &policies) {
    Conflict chosen = Conflict::fail;
    for (const CLI::Option *const given : command.parse_order()) {
        for (const Policy &policy : policies) {
            chosen = policy.option == given ? policy.conflict : chosen;
        }
    }
    return chosen;
}

std::vector<Policy> add_policies(CLI::App &command) {
    const auto add = [&](const char *names, std::string description, Conflict conflict) {
        return Policy{command.add_flag(names)->description(std::move(description)), conflict};
    };
    return {
        add("-f,--force", "replace a destination file that exists", Conflict::replace),
        add("-n,--no-clobber", "leave it as it is; counts as a success", Conflict::skip),
        add("-i,--interactive", "ask before replacing it", Conflict::ask),
        add("--keep-both", "give the new file a free name: \"name (1).txt\"", Conflict::keep_both),
    };
}

void take_operands(Arguments &arguments, std::vector<std::string> operands) {
    if (operands.size() < 2) {
        throw UsageError(operands.empty() ? "no file and no destination given" : "no destination given");
    }
    arguments.destination = std::move(operands.back());
    operands.pop_back();
    arguments.sources = std::move(operands);
}

constexpr const char *kNotes = "\nMode, owner, times, ACL, DOS attributes and extended metadata go along; a\n"
                               "directory that exists is merged into. Of -f, -n, -i, --keep-both the last one\n"
                               "holds. What did not go along is named on stderr. Exit status: 0 all done, 1\n"
                               "some, 2 none or wrong usage; 130 after Ctrl-C (no half file stays).\n";

void add_transfer_command(CLI::App &app, int &status, Operation operation) {
    const bool copy = operation == Operation::copy;
    CLI::App &command = *app.add_subcommand(word_of(operation), copy ? "Copy files and trees with all that is theirs"
                                                                     : "Move or rename files and trees");
    const auto arguments = std::make_shared<Arguments>();
    BatchOptions &options = arguments->batch;
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
    CLI::Option *const operands = add_operands(command, "FILE", "FILE... DEST");
    command.footer(std::string(kNotes) + (copy ? "Examples:\n"
                                                 "  vexofileop copy film.mkv /volume2/video/\n"
                                                 "  vexofileop copy -rn photos /volume2/backup"
                                               : "Examples:\n"
                                                 "  vexofileop move draft.txt final.txt\n"
                                                 "  vexofileop move --keep-both *.jpg /volume2/photo"));
    command.callback([&command, &status, arguments, policies, operands] {
        arguments->batch.transfer.conflict = chosen_policy(command, policies);
        arguments->batch.transfer.links = arguments->batch.trees;
        take_operands(*arguments, operands_of(*operands));
        for (const std::string &source : arguments->sources) {
            if (arguments->batch.transfer.operation == Operation::move && names_contents(source)) {
                throw UsageError(fmt::format("{}: give the directory by its name", displayed(source)));
            }
        }
        status = Batch(arguments->batch).run(plan_errands(arguments->sources, arguments->destination));
    });
}

} // namespace

void add_copy_command(CLI::App &app, int &status) {
    add_transfer_command(app, status, Operation::copy);
}

void add_move_command(CLI::App &app, int &status) {
    add_transfer_command(app, status, Operation::move);
}

} // namespace tool
