// What a worker that carries entries has of the others: an observer that tells everything to the process above, the
// ledger that is kept there, and parts that it gives away.
#pragma once

#include "tools/engine/transfer/ledger.h"
#include "tools/engine/transfer/transfer_observer.h"
#include "tools/engine/transfer/tree_part.h"
#include "tools/engine/workers/crew.h"
#include "tools/engine/workers/record.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace engine {

// The first byte of what is told, of which one record may hold several, and what follows it.
enum class TransferEvent : uint8_t {
    begins,       // path
    entry,        // kind, path, outcome
    arrived,      // path, files, bytes
    stays,        // path, count, names
    progress,     // bytes, files begun
    retry,        // two paths, problem, number, of, pause
    made,         // kind, volume, inode, hash
    given_back,   // volume, inode, what is known
    named,        // twice volume, inode and number of names; two paths, bytes
    part_begins,  // number
    part_reaches, // how many of its names are begun
    part_keeps,   // how many of them are its own
    part_ends,
};
// The same of what is asked.
enum class TransferQuestion : uint8_t {
    mark_of, // kind, volume, inode, place; answered by whether it is known, and the mark
    take,    // volume, inode; answered by what is known
    note,    // what is to be noted of a file; answered once that is done
};

class TransferTelling : public TransferObserver, public Ledger {
  public:
    TransferTelling(Crew &crew, const std::atomic<bool> &linkedFiles) : m_crew(crew), m_linkedFiles(linkedFiles) {}

    bool stopped() const override { return m_crew.stopped(); }
    void tree(const std::string &) override {}
    void begins(const std::string &source) override;
    void entry(EntryKind kind, const std::string &source, const Outcome &outcome) override;
    void arrived(const std::string &directory, int files, int64_t bytes) override;
    void stays(const std::string &directory, const std::vector<std::string> &names) override;
    void progress(int64_t bytes, bool newFile) override;
    void retry(const Retry &retry) override;
    bool may_replace(const std::string &) override { return false; } // who asks somebody shares nothing

    void made(Kind kind, const struct stat &entry, size_t mark) override;
    std::optional<size_t> mark_of(Kind kind, const struct stat &there, uint32_t place) override;
    bool has_linked_files() const override { return m_linkedFiles; }
    std::string take(const FileNumber &file) override;
    void give_back(const FileNumber &file, const std::string &known) override;
    void note(const std::string &record) override;
    void named(const LinkedName &name) override;

    // Parts of this worker, of which the last one that has begun is being done.
    void begins(const TreePart &part);
    void reaches(size_t begun);
    void ends();
    bool is_work_wanted() const { return m_crew.is_work_wanted(); }
    bool give(Crew::Group &group, TreePart part, int from, int to);
    void keeps(size_t names);
    Yield collect(Crew::Group group, bool others);
    void flush();

  private:
    Crew &m_crew;
    const std::atomic<bool> &m_linkedFiles;
    RecordWriter m_pending = {};
    int64_t m_done = 0; // bytes
    uint32_t m_filesBegun = 0;
    uint64_t m_given = 0;
    bool m_filesBefore = false, m_directoriesBefore = false;
};

} // namespace engine
