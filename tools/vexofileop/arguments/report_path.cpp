#include "tools/vexofileop/arguments/report_path.h"

#include "tools/engine/report/names.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/usage_error.h"

#include <algorithm>
#include <fmt/format.h>

namespace tool {

Option add_report_option(const Command &command) {
    return command.add_value("--report", "FILE", "write what was done and lost to FILE.html or FILE.json");
}

std::string report_path_of(const Option &report) {
    if (!report.given()) {
        return {};
    }
    const std::string path = report.values().front();
    constexpr const char *suffixes[] = {".html", ".htm", ".json"};
    if (std::ranges::none_of(suffixes, [&](const char *suffix) { return path.ends_with(suffix); })) {
        throw UsageError(fmt::format("--report: {} ends neither in .html nor in .json", engine::displayed(path)));
    }
    return engine::absolute_path(path);
}

} // namespace tool
