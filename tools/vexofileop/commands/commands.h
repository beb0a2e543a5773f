// The commands of the tool. A command is one source file; it is named here and in the table of main.cpp.
#pragma once

#include "tools/vexofileop/arguments/parser.h"

namespace tool {

// Each adds its subcommand, whose callback does the work and leaves the exit status in `status`. The callback may throw
// engine::InvalidRequest, of which UsageError is one.
using AddCommand = void (*)(const Command &program, int &status);

void add_copy_command(const Command &program, int &status);
void add_move_command(const Command &program, int &status);
void add_mirror_command(const Command &program, int &status);
Command add_mirror_plan(const Command &plan, int &status); // a command of "plan"
void add_compare_command(const Command &program, int &status);
void add_plan_command(const Command &program, int &status);
void add_remove_command(const Command &program, int &status);
void add_relocate_command(const Command &program, int &status);
void add_reflink_command(const Command &program, int &status);
void add_backup_command(const Command &program, int &status);
Command add_backup_plan(const Command &plan, int &status); // a command of "plan"
void add_archive_command(const Command &program, int &status);
void add_ea_command(const Command &program, int &status);
void add_store_command(const Command &program, int &status);

void add_index_command(const Command &program, int &status);
void add_notify_command(const Command &program, int &status);
void add_explain_command(const Command &program, int &status);
// Tells of the commands that the program has when it does its work.
void add_help_command(const Command &program, int &status);
// The help of the program, which has all its commands, lists them by what they are for.
void label_commands(const Command &program);

} // namespace tool
