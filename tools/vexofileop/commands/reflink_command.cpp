// vexofileop reflink: the appliance's switch for clone copies, and whether a file can be cloned into a directory.
#include "copy/copy.h"
#include "platform/core.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/terminal/console.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <iterator>
#include <memory>

namespace tool {
namespace {

// By the answer of VEXOFileCopyIsCloneable, negated.
constexpr const char *kAnswers[] = {
    "can be cloned",
    "no: a setting of the volume could not be looked up",
    "no: a path does not exist, is of the wrong kind or lies in no shared folder; the second must be a directory",
    "no: not both are on btrfs",
    "no: they are on different volumes",
    "no: their copy-on-write settings differ (nodatacow)",
    "no: their compression settings differ",
    "no: a shared folder on either side is encrypted",
};
constexpr uint32_t kSkipNodatacow = 1, kSkipCompression = 2;

// `status`, where what was printed arrived.
int print(const std::string &text, int status) {
    Console console;
    console.line(text);
    return console.check_output() ? status : exitNone;
}

int turn(bool on) {
    VLIBCErrSetEx(0, "", 0);
    errno = 0;
    const int result = VEXOFileCopyReflinkEnable(on ? 1 : 0);
    const uint32_t code = VLIBCErrGet();
    // Without btrfs support the result is not negative; the code tells.
    if (result == 0 && code == 0) {
        return exitAll;
    }
    Console().message(
        code != 0 ? fmt::format("{} ({})", engine::reason_of(code), engine::code_text(code))
                  : fmt::format("/etc/vexoinfo.conf: {}", errno != 0 ? std::strerror(errno) : "could not be changed"));
    return exitNone;
}

int check(const std::vector<std::string> &paths, uint32_t flags) {
    if (paths.size() != 2) {
        throw UsageError("give one file or directory and the directory to clone into");
    }
    const std::string source = engine::absolute_path(paths[0]), directory = engine::absolute_path(paths[1]);
    const int answer = VEXOFileCopyIsCloneable(source.c_str(), directory.c_str(), flags);
    const auto row = static_cast<size_t>(-answer);
    if (answer > 0 || row >= std::size(kAnswers)) {
        Console().message(fmt::format("unknown answer {}", answer));
        return exitNone;
    }
    return print(fmt::format("{} -> {}: {}", engine::displayed(source), engine::displayed(directory), kAnswers[row]),
                 answer == 0 ? exitAll : exitSome);
}

void add_switch(const Command &reflink, int &status, const std::string &word, const char *text) {
    const Command command = reflink.add_command(word.c_str(), text);
    command.set_footer("\nWrites \"reflink_enable\" in /etc/vexoinfo.conf, which takes root.\n"
                       "Example:\n"
                       "  vexofileop reflink " +
                       word);
    command.set_work([&status, word] { status = turn(word == "on"); });
}

void add_check(const Command &reflink, int &status) {
    const Command command = reflink.add_command("check", "Tell whether FILE can be cloned into the directory DIR");
    struct Options {
        bool ignoreNodatacow = false, ignoreCompression = false;
    };
    const auto options = std::make_shared<Options>();
    command.add_flag("--ignore-nodatacow", options->ignoreNodatacow, "do not compare the copy-on-write settings");
    command.add_flag("--ignore-compression", options->ignoreCompression, "do not compare the compression settings");
    const Option paths = command.add_operands("FILE", "FILE DIR");
    command.set_footer("\nExit status: 0 it can, 1 it cannot (the reason is printed), 2 wrong usage.\n"
                       "Example:\n"
                       "  vexofileop reflink check /volume1/vm/disk.img /volume1/backup");
    command.set_work([&status, options, paths] {
        status = check(paths.values(), (options->ignoreNodatacow ? kSkipNodatacow : 0) |
                                           (options->ignoreCompression ? kSkipCompression : 0));
    });
}

} // namespace

void add_reflink_command(const Command &program, int &status) {
    const Command command = program.add_command("reflink", "Clone copies: the switch, and what can be cloned");
    command.require_command();
    command.set_footer("\nServices go by the switch, \"reflink_enable\" in /etc/vexoinfo.conf, and\n"
                       "so does \"copy\", but for its option --clone.\n"
                       "Example:\n"
                       "  vexofileop reflink status");
    const Command tell = command.add_command("status", "Print \"on\" or \"off\"");
    tell.set_footer("\nExample:\n  vexofileop reflink status");
    tell.set_work([&status] { status = print(VEXOFileCopyReflinkIsEnabled() == 1 ? "on" : "off", exitAll); });
    add_switch(command, status, "on", "Allow services to make clone copies");
    add_switch(command, status, "off", "Have services copy the data");
    add_check(command, status);
}

} // namespace tool
