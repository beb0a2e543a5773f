// vexofileop help: the commands by what they are for, and the help of each.
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/terminal/console.h"

#include <algorithm>
#include <fmt/format.h>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tool {
namespace {

// One stands for those below it, too.
constexpr std::string_view kSee[] = {"plan",    "compare", "ea show",     "ea list",        "ea get",
                                     "ea diff", "index",   "store check", "reflink status", "reflink check"};
constexpr std::string_view kDo[] = {"copy",          "move",   "mirror", "relocate", "remove",    "backup run",
                                    "archive clear", "ea set", "ea rm",  "ea copy",  "ea rename", "ea remove"};
constexpr std::string_view kMend[] = {"store repair", "store convert", "ea repair", "ea upgrade"};
constexpr std::string_view kRest[] = {"reflink on", "reflink off", "notify", "explain", "help"};

struct Task {
    const char *label, *title;
    std::span<const std::string_view> commands;
};

// Every command is in one of them, as people think of it, which a test holds.
constexpr Task kTasks[] = {
    {"See", "See what is there, and what would come of it; nothing is changed:", kSee},
    {"Do", "Do it:", kDo},
    {"Mend", "Mend what is kept beside the files, or bring it into another form:", kMend},
    {"Rest", "The rest, and what explains it:", kRest},
};

void list_by_task(const Command &program, Console &console) {
    const std::vector<KnownCommand> known = program.known_commands();
    for (const Task &task : kTasks) {
        console.line(task.title);
        for (const std::string_view name : task.commands) {
            const auto command = std::ranges::find(known, name, &KnownCommand::name);
            console.line(fmt::format("  {:<23}{}", name, command == known.end() ? "" : command->text));
        }
        console.line("");
    }
    console.line("\"vexofileop help COMMAND\" says how it is used, with an example; the manual page\n"
                 "vexofileop(1) has all, and vexofileop-cookbook(7) whole tasks.");
}

} // namespace

void label_commands(const Command &program) {
    for (const Task &task : kTasks) {
        // One that has commands for several tasks is listed with the last of these, which takes the most care.
        for (const std::string_view name : task.commands) {
            program.label_command(std::string(name.substr(0, name.find(' '))), task.label);
        }
    }
}

void add_help_command(const Command &program, int &status) {
    const Command command = program.add_command("help", "Tell the commands by task, or how one is used");
    const Option words = command.add_operands("COMMAND", "[COMMAND...]");
    command.set_footer("\nExamples:\n"
                       "  vexofileop help\n"
                       "  vexofileop help store check");
    command.set_work([&status, program, words] {
        Console console;
        if (words.given()) {
            std::string text = program.help_of(words.values());
            text.pop_back(); // the line feed
            console.line(text);
        } else {
            list_by_task(program, console);
        }
        status = console.check_output() ? exitAll : exitSome;
    });
}

} // namespace tool
