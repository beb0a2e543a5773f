#include "tools/vexofileop/arguments/progress_option.h"

#include "tools/engine/report/names.h"
#include "tools/vexofileop/arguments/usage_error.h"

#include <fmt/format.h>
#include <string>

namespace tool {

ProgressOption::ProgressOption(const Command &command, Of of)
    : m_command(command),
      m_kind(command.rare().add_value("--progress", "KIND",
                                      of == Of::run ? "json: lines on stderr; bar: a line on a terminal; none"
                                                    : "json, bar or none: accepted, and means nothing here")),
      m_none(command.rare().add_flag("--no-progress",
                                     of == Of::run ? "no progress line on a terminal" : "accepted: a plan has none")) {}

ProgressOption::Wanted ProgressOption::wanted() const {
    const std::string kind = m_kind.given() ? m_kind.values().front() : "bar";
    if (kind != "json" && kind != "bar" && kind != "none") {
        throw UsageError(fmt::format("--progress {}: give json, bar or none", engine::displayed(kind)));
    }
    Wanted wanted;
    for (const Option &given : m_command.given_options()) {
        if (given == m_none) {
            wanted = {.none = true};
        } else if (given == m_kind) {
            wanted = {.none = kind == "none", .lines = kind == "json"};
        }
    }
    return wanted;
}

} // namespace tool
