// Operands through the parser and out again, byte for byte.
#include "tools/vexofileop/commands.h"
#include "tools/vexofileop/failure.h"
#include "tools/vexofileop/input.h"
#include "tools/vexofileop/names.h"
#include "tools/vexofileop/paths.h"

#include <algorithm>
#include <fmt/format.h>
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

std::vector<std::string> lines_of(std::string_view text, char end) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const size_t length = std::min(text.find(end), text.size());
        if (length > 0) {
            lines.emplace_back(text.substr(0, length));
        }
        text.remove_prefix(std::min(text.size(), length + 1));
    }
    return lines;
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

PathOperands::PathOperands(CLI::App &command, const char *name, const char *usage)
    : m_operands(add_operands(command, name, usage)),
      m_list(command.add_option("--files-from", CLI::callback_t(), "paths from this file too, a line each; - is stdin")
                 ->option_text("LIST")),
      m_nul(command.add_flag("-0,--null")->description("each path in LIST ends with NUL, not with a line feed")) {
    m_nul->needs(m_list);
}

std::vector<std::string> PathOperands::given() const {
    std::vector<std::string> paths = operands_of(*m_operands);
    if (std::ranges::find(paths, "") != paths.end()) {
        throw UsageError("an empty path was given");
    }
    return paths;
}

std::vector<std::string> PathOperands::listed() const {
    if (!has_list()) {
        return {};
    }
    const std::string list = operands_of(*m_list).front();
    try {
        const std::string text = read_input(list);
        const bool nul = m_nul->count() > 0;
        if (!nul && text.find('\0') != std::string::npos) {
            throw UsageError(fmt::format("{}: holds a NUL; give -0 if that ends each path", displayed(list)));
        }
        return lines_of(text, nul ? '\0' : '\n');
    } catch (const Failure &failure) {
        throw UsageError(failure.what());
    }
}

std::vector<std::string> PathOperands::all() const {
    std::vector<std::string> paths = given();
    if (paths.empty() && !has_list()) {
        throw UsageError("no path given");
    }
    const std::vector<std::string> more = listed();
    paths.insert(paths.end(), more.begin(), more.end());
    return paths;
}

bool PathOperands::has_list() const {
    return m_list->count() > 0;
}

bool PathOperands::has_list_on_stdin() const {
    return has_list() && operands_of(*m_list).front() == "-";
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
