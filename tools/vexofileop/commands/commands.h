// The commands of the tool. A command is one source file; it is named here and in the table of main.cpp.
#pragma once

#include "tools/vexofileop/arguments/parser.h"

#include <string>
#include <vector>

namespace tool {

// What the shell gets to know.
enum ExitStatus { exitAll = 0, exitSome = 1, exitNone = 2, exitUsage = 2, exitSignal = 128 };

// The status for so many successes and failures.
constexpr int exit_status(int succeeded, int failed) {
    return failed == 0 ? exitAll : succeeded > 0 ? exitSome : exitNone;
}

// Each adds its subcommand, whose callback does the work and leaves the exit status in `status`. The callback may throw
// UsageError.
using AddCommand = void (*)(const Command &program, int &status);

void add_copy_command(const Command &program, int &status);
void add_move_command(const Command &program, int &status);
void add_remove_command(const Command &program, int &status);
void add_relocate_command(const Command &program, int &status);
void add_reflink_command(const Command &program, int &status);
void add_archive_command(const Command &program, int &status);
void add_ea_command(const Command &program, int &status);

void add_index_command(const Command &program, int &status);
void add_notify_command(const Command &program, int &status);
void add_explain_command(const Command &program, int &status);

// The operands of a command that takes any number of paths, which may also come out of a list: --files-from and -0.
class PathOperands {
  public:
    PathOperands(const Command &command, const char *name, const char *usage);

    // Those of the command line.
    std::vector<std::string> given() const;
    // Those of the list. Empty lines name nothing.
    std::vector<std::string> listed() const;
    // Both, in this order. All of them throw UsageError for an empty path and for a list that cannot be read; this one
    // also where neither paths nor a list were given.
    std::vector<std::string> all() const;
    bool has_list() const;
    // The list is read from stdin, where no question can be answered then.
    bool has_list_on_stdin() const;

  private:
    Option m_operands, m_list, m_nul;
};

} // namespace tool
