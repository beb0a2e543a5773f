// Operands through the parser and out again, byte for byte.
#include "tools/vexofileop/commands.h"

#include <algorithm>
#include <string_view>

namespace tool {
namespace {

constexpr std::string_view kMark = "\x01";

// What CLI11 gives a meaning of its own: "[a,b]" is a list of two to it and "++" ends a command.
bool needs_mark(std::string_view argument) {
    return argument.starts_with('[') || argument.starts_with(kMark) || argument == "++";
}

std::string marked(std::string_view argument, bool always) {
    return std::string(always || needs_mark(argument) ? kMark : "").append(argument);
}

} // namespace

CLI::Option *add_operands(CLI::App &command, const char *name, const char *usage) {
    return command.add_option(name, CLI::callback_t(), usage)->expected(0, -1)->allow_extra_args();
}

std::vector<std::string> operands_of(const CLI::Option &operands) {
    std::vector<std::string> given = operands.results();
    for (std::string &operand : given) {
        if (operand.starts_with(kMark)) {
            operand.erase(0, kMark.size());
        }
    }
    return given;
}

std::vector<std::string> parser_arguments(int argc, const char *const *argv) {
    std::vector<std::string> arguments;
    bool optionsEnded = false;
    for (int at = 1; at < argc; ++at) {
        const std::string_view argument = argv[at];
        if (!optionsEnded && argument == "--") {
            optionsEnded = true;
        } else {
            arguments.push_back(marked(argument, optionsEnded));
        }
    }
    std::ranges::reverse(arguments);
    return arguments;
}

std::string without_marks(std::string text) {
    std::erase(text, kMark.front());
    return text;
}

} // namespace tool
