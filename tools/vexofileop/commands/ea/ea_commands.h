// The commands under `vexofileop ea`, by what they are about. Each adds its subcommands to that one.
#pragma once

#include "tools/vexofileop/commands/commands.h"

namespace tool {

// list, get, set, rm
void add_ea_attribute_commands(const Command &ea, int &status);
// show, diff
void add_ea_inspection_commands(const Command &ea, int &status);
// copy, rename, remove, repair: what the library does with whole stores
void add_ea_store_commands(const Command &ea, int &status);
// upgrade
void add_ea_upgrade_command(const Command &ea, int &status);

} // namespace tool
