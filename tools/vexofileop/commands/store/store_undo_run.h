// vexofileop store repair --undo: putting back what a repair has changed.
#pragma once

#include <string>

namespace tool {

// The exit status.
int undo_repair(const std::string &quarantine, bool json, bool quiet);

} // namespace tool
