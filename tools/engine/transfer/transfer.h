// Copies or moves files, links and trees, one request after the other, and tells of each entry what became of it.
#pragma once

#include "tools/engine/transfer/file_transfer.h"
#include "tools/engine/transfer/shared_transfer.h"
#include "tools/engine/transfer/transfer_observer.h"
#include "tools/engine/transfer/transfer_options.h"
#include "tools/engine/transfer/tree_transfer.h"
#include "tools/engine/workers/hands.h"

#include <memory>
#include <string>

namespace engine {

class Transfer {
  public:
    // The observer outlives this.
    Transfer(const TransferOptions &options, TransferObserver &observer);

    // Trees that are run from now on are shared by as many processes as there are hands, where that makes no difference
    // but in the order of the entries. Once at most, and not where nothing can be shared.
    void share(const Hands &hands);
    bool can_share() const { return SharedTransfer::can(m_options); }

    // Both paths absolute; a slash at the end of the source asks for a directory, and a slash and a dot for what that
    // holds: several of those may go into one directory. What one request has written no later one replaces. The
    // selection sees a source's own name at the start of each path, but not that of one with the dot.
    void run(const std::string &source, const std::string &destination);

    // The same of a name below `base` that is made anew below `top` with the directories on its way, which are finished
    // when a name leads elsewhere, or by leave(), which ends each run: volumes are written out then, and what only all
    // names of a file show is told. Both absolute, and directories. The selection sees the name from the base on.
    void run_below(const std::string &base, const std::string &top, const std::string &name, const NamesBelow &how);
    void leave();

    // Whether the source is carried as a tree.
    bool is_tree(const std::string &source) const;

  private:
    TransferOptions m_options;
    TransferObserver &m_observer;
    FileTransfer m_files;
    TreeTransfer m_trees;
    std::unique_ptr<SharedTransfer> m_shared = nullptr;
};

} // namespace engine
