// The option --report.
#pragma once

#include "tools/vexofileop/arguments/parser.h"

#include <string>

namespace tool {

Option add_report_option(const Command &command);

// The path that was given, absolute; empty: none. Throws UsageError for a suffix that names no kind of report.
std::string report_path_of(const Option &report);

} // namespace tool
