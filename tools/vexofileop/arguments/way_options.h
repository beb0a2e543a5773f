// The options that say how entries are carried.
#pragma once

#include "tools/engine/transfer/transfer_options.h"
#include "tools/vexofileop/arguments/parser.h"

namespace tool {

class WayOptions {
  public:
    explicit WayOptions(const Command &command);

    // Throws UsageError for a value that none of them has.
    void apply(engine::TransferOptions &transfer) const;

  private:
    Option m_clone, m_rate, m_retries, m_sync, m_backup, m_backupDirectory;
};

} // namespace tool
