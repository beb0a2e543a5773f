// vexofileop plan --shards: a tree cut into lists, each for a copy of its own.
#pragma once

#include "tools/vexofileop/arguments/parser.h"
#include "tools/vexofileop/arguments/selection_options.h"

#include <string>
#include <vector>

namespace tool {

class ShardPlan {
  public:
    // Adds the options to "plan", whose commands go without them.
    explicit ShardPlan(const Command &plan);
    // For each command of "plan".
    void keep_apart(const Command &command) const;
    // The exit status. Throws UsageError, also where neither a command nor this was asked for.
    int run() const;

  private:
    std::vector<Option> extras() const;

    Command m_plan;
    Option m_shards, m_out, m_verbose, m_json;
    SelectionOptions m_selection;
    Option m_operands;
};

} // namespace tool
