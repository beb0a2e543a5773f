// vexofileop: what the library does for services, from a shell.
#include "tools/vexofileop/commands.h"
#include "tools/vexofileop/console.h"
#include "tools/vexofileop/help.h"
#include "tools/vexofileop/names.h"
#include "tools/vexofileop/paths.h"
#include "tools/vexofileop/signals.h"

#include <CLI/Error.hpp>
#include <cstdio>
#include <exception>
#include <fmt/format.h>
#include <memory>
#include <syslog.h>

namespace {

using namespace tool;

constexpr AddCommand kCommands[] = {
    add_copy_command,    add_move_command,    add_remove_command, add_relocate_command, add_ea_command,
    add_reflink_command, add_archive_command, add_index_command,  add_notify_command,   add_explain_command,
};

// The command line up to the command that was named: "vexofileop reflink check".
std::string command_name(const CLI::App &app) {
    std::string name = app.get_name();
    for (const CLI::App *at = &app; !at->get_subcommands().empty();) {
        at = at->get_subcommands().front();
        name += " " + at->get_name();
    }
    return name;
}

int refuse(const CLI::App &app, const std::string &reason) {
    fmt::print(stderr, "vexofileop: {}\nTry '{} --help'.\n", reason, command_name(app));
    return exitUsage;
}

int print(std::string text) {
    text.pop_back(); // the line feed
    Console console;
    console.line(text);
    return console.check_output() ? exitAll : exitSome;
}

int run(CLI::App &app, int argc, char **argv) {
    int status = exitAll;
    for (const AddCommand add : kCommands) {
        add(app, status);
    }
    try {
        app.parse(parser_arguments(argc, argv));
        return status;
    } catch (const CLI::CallForHelp &) {
        return print(app.help());
    } catch (const CLI::CallForVersion &version) {
        return print(std::string(version.what()) + "\n");
    } catch (const CLI::ParseError &error) {
        return refuse(app, displayed(without_marks(error.what())));
    } catch (const UsageError &error) {
        return refuse(app, error.what());
    }
}

} // namespace

int main(int argc, char **argv) {
    ::openlog("vexofileop", LOG_PID, LOG_USER);
    watch_signals();
    try {
        CLI::App app("Copies, moves and inspects files with everything that belongs to them.", "vexofileop");
        app.formatter(std::make_shared<HelpFormatter>());
        app.set_help_flag("-h,--help", "print this help and exit");
        app.set_version_flag("--version", "vexofileop " VEXOFILEOP_VERSION, "print the version and exit");
        app.require_subcommand(1);
        app.footer("\nEach command explains itself: vexofileop copy --help\n"
                   "Example:\n"
                   "  vexofileop copy film.mkv /volume2/video/");
        return run(app, argc, argv);
    } catch (const std::exception &error) {
        fmt::print(stderr, "vexofileop: {}\n", error.what());
        return exitNone;
    }
}
