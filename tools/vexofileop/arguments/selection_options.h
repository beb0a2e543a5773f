// The options that choose among the entries of a tree.
#pragma once

#include "tools/engine/select/selection.h"
#include "tools/vexofileop/arguments/parser.h"

#include <vector>

namespace tool {

class SelectionOptions {
  public:
    explicit SelectionOptions(const Command &command);

    // As given, rules in the order of the command line. Throws UsageError.
    engine::Selection chosen() const;
    // All of them, for a command that has them in one of its ways alone.
    std::vector<Option> all() const;

  private:
    void add_rules(engine::Selection &selection) const;

    Command m_command;
    Option m_exclude, m_include, m_excludeFrom, m_filterFile;
    Option m_minSize, m_maxSize, m_newerThan, m_olderThan, m_archiveBit, m_oneFileSystem;
};

} // namespace tool
