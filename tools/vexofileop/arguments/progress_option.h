// The options --progress and --no-progress.
#pragma once

#include "tools/vexofileop/arguments/parser.h"

namespace tool {

class ProgressOption {
  public:
    // Both are rare ones. A plan takes what its run is given, and has no progress to tell.
    enum class Of { run, plan };
    explicit ProgressOption(const Command &command, Of of = Of::run);

    // What was given last. Throws UsageError for a kind that there is none of.
    struct Wanted {
        bool none = false, lines = false; // else a line on a terminal
    };
    Wanted wanted() const;

  private:
    Command m_command;
    Option m_kind, m_none;
};

} // namespace tool
