// vexofileop remove: files and trees together with everything that belongs to them.
#include "tools/engine/remove/tree_removal.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/commands/commands.h"

#include <memory>

namespace tool {

void add_remove_command(const Command &program, int &status) {
    const Command command = program.add_command("remove", "Remove files and trees with all that is theirs");
    const auto options = std::make_shared<RemovalOptions>();
    command.add_flag("-r,-R,--recursive", options->recursive, "directories too, with everything in them");
    const Option force = command.add_flag("-f,--force", "what does not exist is no failure; never ask");
    const Option ask = command.add_flag("-i,--interactive", "ask before each removal");
    command.add_flag("--stop-on-error", options->stopOnError, "end at the first entry that fails");
    command.add_flag("-v,--verbose", options->verbose, "name what is removed");
    command.add_flag("--json", options->json, "one JSON object per line: each entry, then a summary");
    const PathOperands operands(command, "FILE", "FILE...");
    command.set_footer("\nExtended metadata kept beside a file goes with it. Links are removed, never\n"
                       "followed. \"/\", \".\" and \"..\" are refused. Of -f and -i the last one holds.\n"
                       "Exit status: 0 all removed, 1 some failed, 2 none removed or wrong usage.\n"
                       "Examples:\n"
                       "  vexofileop remove -r /volume1/photo/old\n"
                       "  find . -name '*.bak' -print0 | vexofileop remove -0 --files-from -");
    command.set_work([command, &status, options, force, ask, operands] {
        for (const Option &given : command.given_options()) {
            options->force = given == force || (options->force && given != ask);
            options->ask = given == ask || (options->ask && given != force);
        }
        if (options->ask && operands.has_list_on_stdin()) {
            throw UsageError("-i reads its answers from stdin, which is the list here");
        }
        const bool nothing = options->force && operands.given().empty() && !operands.has_list();
        status = TreeRemoval(*options).run(nothing ? std::vector<std::string>() : operands.all());
    });
}

} // namespace tool
