// What the commands under "store" tell in the same words.
#pragma once

#include "tools/vexofileop/output/report.h"
#include "tools/vexofileop/terminal/console.h"

#include <string>

namespace tool {

// What could not be looked into; `json`: to programs as well.
void tell_trouble(Console &console, const std::string &command, const std::string &path, const std::string &reason,
                  bool json);

// Writes the report where there is to be one; the status, with trouble where that failed.
int write_store_report(Console &console, const Report &report, const std::string &path, int status);

} // namespace tool
