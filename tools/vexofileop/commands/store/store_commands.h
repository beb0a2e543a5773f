// The commands under `vexofileop store`. Each adds its subcommand to that one.
#pragma once

#include "tools/vexofileop/commands/commands.h"

namespace tool {

// check, repair
void add_store_survey_commands(const Command &store, int &status);
// convert
void add_store_convert_command(const Command &store, int &status);

} // namespace tool
