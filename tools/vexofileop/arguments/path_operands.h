// The operands of a command that takes any number of paths, which may also come out of a list: --files-from and -0.
#pragma once

#include "tools/vexofileop/arguments/parser.h"

#include <string>
#include <vector>

namespace tool {

// The names in a list, empty ones left out. Throws UsageError where it cannot be read.
std::vector<std::string> names_in_list(const std::string &list, bool nul);
// Those of a list that a program has made, each with NUL at its end, so that a list that was cut off is known. Throws
// UsageError.
std::vector<std::string> names_in_whole_list(const std::string &list);

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
    // Where the option is given there is none.
    void excludes_list(const Option &option) const { m_list.excludes(option); }
    // The list is read from stdin, where no question can be answered then.
    bool has_list_on_stdin() const;

  private:
    Option m_operands, m_list, m_nul;
};

} // namespace tool
