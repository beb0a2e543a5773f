// What the commands under "store" tell in the same words.
#pragma once

#include "tools/engine/walk/held_entry.h"
#include "tools/vexofileop/output/report.h"
#include "tools/vexofileop/terminal/console.h"

#include <functional>
#include <string>
#include <vector>

namespace tool {

// Does the same with each of the paths that a command was given, until it is stopped; `trouble` is told of one that
// failed.
void for_each_path(const std::vector<std::string> &paths, const std::function<void(const engine::HeldEntry &)> &work,
                   const std::function<void(const std::string &path, const std::string &reason)> &trouble);

// What could not be looked into; `json`: to programs as well.
void tell_trouble(Console &console, const std::string &command, const std::string &path, const std::string &reason,
                  bool json);

// Writes the report where there is to be one; the status, with trouble where that failed.
int write_store_report(Console &console, const Report &report, const std::string &path, int status);

} // namespace tool
