// The operands that are paths, from the command line and from a list.
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/vexofileop/arguments/input.h"
#include "tools/vexofileop/arguments/usage_error.h"

#include <algorithm>
#include <fmt/format.h>
#include <string_view>

namespace tool {
namespace {

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

std::string text_of_list(const std::string &list) {
    try {
        return read_input(list);
    } catch (const engine::Failure &failure) {
        throw UsageError(failure.what());
    }
}

} // namespace

std::vector<std::string> names_in_list(const std::string &list, bool nul) {
    const std::string text = text_of_list(list);
    if (!nul && text.find('\0') != std::string::npos) {
        throw UsageError(fmt::format("{}: holds a NUL; give -0 if that ends each path", engine::displayed(list)));
    }
    return lines_of(text, nul ? '\0' : '\n');
}

std::vector<std::string> names_in_whole_list(const std::string &list) {
    const std::string text = text_of_list(list);
    if (text.empty() || text.back() != '\0') {
        throw UsageError(fmt::format("{}: is no whole list of names that each end with NUL", engine::displayed(list)));
    }
    return lines_of(text, '\0');
}

PathOperands::PathOperands(const Command &command, const char *name, const char *usage)
    : m_operands(command.add_operands(name, usage)),
      m_list(command.rare().add_value("--files-from", "LIST", "paths from this file too, a line each; - is stdin")),
      m_nul(command.rare().add_flag("-0,--null,--from0", "each path in LIST ends with NUL, not with a line feed")) {
    m_nul.needs(m_list);
}

std::vector<std::string> PathOperands::given() const {
    std::vector<std::string> paths = m_operands.values();
    if (std::ranges::find(paths, "") != paths.end()) {
        throw UsageError("an empty path was given");
    }
    return paths;
}

std::vector<std::string> PathOperands::listed() const {
    if (!has_list()) {
        return {};
    }
    return names_in_list(m_list.values().front(), m_nul.given());
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
    return m_list.given();
}

bool PathOperands::has_list_on_stdin() const {
    return has_list() && m_list.values().front() == "-";
}

} // namespace tool
