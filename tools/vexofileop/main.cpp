// vexofileop: what the library does for services, from a shell.
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/walk/stack_room.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/terminal/console.h"
#include "tools/vexofileop/terminal/signals.h"
#include "tools/vexofileop/terminal/status_note.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <fmt/format.h>
#include <optional>
#include <string>
#include <string_view>
#include <syslog.h>

namespace {

using namespace tool;

struct NamedCommand {
    std::string_view name;
    AddCommand add;
    int usage = exitUsage; // the status for a command line that makes no sense
};

// In the order in which people come to need them: to see, to do, to mend, and the rest.
constexpr NamedCommand kCommands[] = {
    {"plan", add_plan_command},         {"compare", add_compare_command}, {"index", add_index_command},
    {"copy", add_copy_command},         {"move", add_move_command},       {"mirror", add_mirror_command},
    {"relocate", add_relocate_command}, {"remove", add_remove_command},   {"backup", add_backup_command},
    {"archive", add_archive_command},   {"ea", add_ea_command},           {"store", add_store_command, exitStoreUsage},
    {"reflink", add_reflink_command},   {"notify", add_notify_command},   {"explain", add_explain_command},
    {"help", add_help_command},
};

// The command that the command line begins with is added alone: the options of all take longer to set up than a rename.
// Whatever else it begins with is for the parser, which knows all of them, and so does "help".
const NamedCommand *named_command(int argc, const char *const *argv) {
    const auto *const named =
        argc > 1 ? std::ranges::find(kCommands, std::string_view(argv[1]), &NamedCommand::name) : std::end(kCommands);
    return named == std::end(kCommands) || named->add == add_help_command ? nullptr : named;
}

void add_commands(const Command &program, const NamedCommand *named, int &status) {
    if (named != nullptr) {
        note_command(named->name.data()); // of the table, which ends it
        named->add(program.trusted(), status);
        return;
    }
    for (const NamedCommand &command : kCommands) {
        command.add(program, status);
    }
    label_commands(program);
}

void refuse(const Parser &parser, const std::string &reason) {
    fmt::print(stderr, "vexofileop: {}\nTry '{} --help'.\n", reason, parser.command_name());
}

int print(std::string text) {
    text.pop_back(); // the line feed
    Console console;
    console.line(text);
    return console.check_output() ? exitAll : exitSome;
}

int run(int argc, char **argv) {
    // Never taken apart: hundreds of options would be, at the end of each command.
    static const Parser &parser =
        *new Parser({.name = "vexofileop",
                     .description = "Copies, moves and inspects files with everything that belongs to them.",
                     .version = "vexofileop " VEXOFILEOP_VERSION,
                     .footer = "\nExample (vexofileop help copy says more): vexofileop copy film.mkv /volume2/"});
    int status = exitAll;
    const NamedCommand *const named = named_command(argc, argv);
    add_commands(parser.program(), named, status);
    try {
        const std::optional<std::string> answer = parser.run(argc, argv);
        return answer ? print(*answer) : status;
    } catch (const engine::InvalidRequest &error) {
        refuse(parser, error.what());
        return named != nullptr ? named->usage : exitUsage;
    }
}

} // namespace

int main(int argc, char **argv) {
    ::openlog("vexofileop", LOG_PID, LOG_USER);
    watch_signals();
    engine::raise_stack_limit();
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        fmt::print(stderr, "vexofileop: {}\n", error.what());
        return exitNone;
    }
}
