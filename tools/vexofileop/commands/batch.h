// One run of copy or move: the errands in order, what is said about each entry, and the count at the end.
#pragma once

#include "tools/engine/transfer/file_transfer.h"
#include "tools/engine/transfer/tree_transfer.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/terminal/console.h"

#include <string>
#include <vector>

namespace tool {

struct BatchOptions {
    TransferOptions transfer;
    bool trees = false; // directories are carried too
    bool stopOnError = false;
    bool verbose = false, json = false, noProgress = false;
};

const char *word_of(Operation operation); // "copy"
const char *word_of(Status status);       // "done"

class Batch {
  public:
    explicit Batch(const BatchOptions &options);
    // The exit status.
    int run(const std::vector<Errand> &errands);

  private:
    struct Counts {
        int of[4] = {}; // by Status
        int &operator[](Status status) { return of[static_cast<size_t>(status)]; }
        int operator[](Status status) const { return of[static_cast<size_t>(status)]; }
    };

    void begin(const std::vector<Errand> &errands);
    void one(const Errand &errand);
    void entry(EntryKind kind, const std::string &source, const Outcome &outcome);
    void arrived(int files, int64_t bytes);
    void report(EntryKind kind, const std::string &source, const Outcome &outcome);
    void report_problems(const std::string &source, const Outcome &outcome);
    void verbose_line(const std::string &source, const Outcome &outcome);
    std::string entry_line(EntryKind kind, const std::string &source, const Outcome &outcome) const;
    int finish(size_t planned);
    void tell_stop(size_t planned);
    std::string counts_line() const;
    std::string summary_line(size_t planned, int status) const;
    void advance(int64_t bytes);
    void advance_in_tree(int64_t bytes, bool newFile);
    bool may_replace(const std::string &path);
    bool stopped() const;
    bool copies() const { return m_options.transfer.operation == Operation::copy; }

    const BatchOptions &m_options;
    Console m_console;
    FileTransfer m_files;
    TreeTransfer m_trees;
    Counts m_entries, m_directories;
    int m_cloned = 0;
    bool m_treeSeen = false;
    bool m_failed = false;
    int64_t m_behind = 0;      // for the progress line: all that is done with, however it ended
    int64_t m_filesBehind = 0; // the same, counted
    int64_t m_filesBegun = 0;  // those, or of a tree that the library copies those that it has begun
    int64_t m_bytes = 0;       // the same with the part of the file under way
    int64_t m_copied = 0;      // what really arrived
};

} // namespace tool
