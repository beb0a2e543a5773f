// A tree carried by several processes: this one makes its top, gives away what is in it, hears of everything and keeps
// the ledger. The workers walk, and share with one another what is before them.
#pragma once

#include "tools/engine/transfer/file_transfer.h"
#include "tools/engine/transfer/transfer_options.h"
#include "tools/engine/transfer/transfer_telling.h"
#include "tools/engine/transfer/tree_part.h"
#include "tools/engine/transfer/tree_transfer.h"
#include "tools/engine/workers/pool.h"
#include "tools/engine/workers/shared.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

class SharedTransfer : public TreeSharer, private Overseer {
  public:
    // All of them outlive this. `files` and `trees` are those of this process, and know what all of them have done.
    SharedTransfer(const TransferOptions &options, Hands hands, FileTransfer &files, TreeTransfer &trees,
                   TransferObserver &observer);

    // Whether a request may be shared at all: nobody is asked, no name is chosen by what others have become, and
    // nothing is counted over all of the files.
    static bool can(const TransferOptions &options);

    Yield run(const WorkerPool::Source &next) override { return m_pool.run(next); }

    // Files of several names went before, of which the last one may be left.
    void has_linked_files() { *m_linkedFiles = true; }

  private:
    // A part that a worker has begun.
    struct Begun {
        uint64_t number;
        size_t begun = 0;               // of its names
        std::optional<size_t> own = {}; // how many of them it has kept; nothing: all
        bool ended = false;
    };
    struct Member {
        std::vector<Begun> parts = {};
        std::string last = {}; // what it has told of
    };

    bool stopped() const override { return m_observer.stopped(); }
    void told(uint64_t worker, std::string_view record) override;
    std::optional<std::string> asked(uint64_t worker, std::string_view record) override;
    bool lost(uint64_t worker, std::string_view job, const std::string &begun, const std::string &reason) override;
    void gone(uint64_t worker) override;

    void hear(uint64_t worker, RecordReader &reader);
    void hear_of_part(Member &member, TransferEvent event, RecordReader &reader);
    void hear_of_entry(Member &member, RecordReader &reader);
    void hear_of_retry(RecordReader &reader);
    void hear_of_name(RecordReader &reader);
    void tell(EntryKind kind, const std::string &source, const Outcome &outcome);
    void not_finished(const TreePart &part, const std::string &source, const std::string &reason);

    const TransferOptions m_options;
    FileTransfer &m_files;
    TreeTransfer &m_trees;
    TransferObserver &m_observer;
    Shared<std::atomic<bool>> m_linkedFiles; // whether any file of several names went before
    std::map<uint64_t, Member> m_members = {};
    std::set<std::string> m_stays = {};          // directories of which that was told
    std::map<FileNumber, uint64_t> m_taken = {}; // files of several names, by the workers that have them in hand
    WorkerPool m_pool;
};

} // namespace engine
