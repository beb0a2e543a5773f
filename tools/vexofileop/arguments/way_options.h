// The options that say how entries are carried.
#pragma once

#include "tools/engine/transfer/transfer_options.h"
#include "tools/vexofileop/arguments/parser.h"

namespace tool {

// --no-probe of a run, which goes with --dry-run alone. Throws UsageError.
void add_dry_no_probe(const Command &command, bool &noProbe);
void refuse_no_probe(bool noProbe, bool dryRun);

// "--names=HOW", where a command goes by it, and whether names come back. Throws UsageError for a value it has not.
Option add_names_option(const Command &command);
bool are_names_reversible(const Option &option);

class WayOptions {
  public:
    explicit WayOptions(const Command &command);

    // Throws UsageError for a value that none of them has.
    void apply(engine::TransferOptions &transfer) const;

  private:
    Option m_clone, m_rate, m_retries, m_sync, m_backup, m_backupDirectory, m_names;
};

} // namespace tool
