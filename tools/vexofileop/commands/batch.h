// One run of copy or move: the errands in order, what is said about each entry, and the count at the end.
#pragma once

#include "tools/engine/transfer/transfer.h"
#include "tools/vexofileop/arguments/errands.h"
#include "tools/vexofileop/output/receipt.h"
#include "tools/vexofileop/output/report.h"
#include "tools/vexofileop/terminal/console.h"

#include <map>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace tool {

struct BatchOptions {
    engine::TransferOptions transfer;
    int jobs = 0; // processes that share a tree; 0: as many as are usual
    bool stopOnError = false;
    int64_t mostErrors = 0; // entries that failed, or lost what was not accepted; 0: any number
    bool verbose = false, json = false, quiet = false, noProgress = false;
    bool progressLines = false;    // as JSON, on stderr
    std::string report = {};       // the file that tells it all; empty: none
    const char *command = nullptr; // where it is another one than the operation's
    bool eachEntry = false;        // is told, whatever became of it
};

const char *word_of(engine::Operation operation); // "copy"

engine::NamesBelow names_below(const RelativeNames &names, const engine::TransferOptions &transfer);

class Batch : protected engine::TransferObserver {
  public:
    explicit Batch(const BatchOptions &options);
    // The exit status.
    int run(const std::vector<Errand> &errands);

  protected:
    struct Counts {
        int of[4] = {}; // by Status
        int &operator[](engine::Status status) { return of[static_cast<size_t>(status)]; }
        int operator[](engine::Status status) const { return of[static_cast<size_t>(status)]; }
    };

    // A run is these two, and what a command does beside.
    void copy(const std::vector<Errand> &errands);
    int finish(size_t planned);
    // What a command has to add to the line and to the object at the end.
    virtual std::string more_counts() const { return {}; }
    virtual void add_more(Json &) const {}

    void begin(const std::vector<Errand> &errands);
    int jobs_for(const std::vector<Errand> &errands) const;
    void run_below(const Errand &errand);
    void begins(const std::string &source) override;
    void tree(const std::string &source) override;
    void entry(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) override;
    void arrived(const std::string &directory, int files, int64_t bytes) override;
    void stays(const std::string &directory, const std::vector<std::string> &names) override;
    void progress(int64_t bytes, bool newFile) override;
    bool may_replace(const std::string &path) override;
    void retry(const engine::Retry &retry) override;
    void writing_out(const std::string &directory) override;
    void written_out(const std::string &directory, const std::optional<engine::Problem> &problem) override;
    void tell_write_out(const std::string &directory, const char *status, const engine::Problem *problem);
    bool stopped() const override;
    bool stays_on_the_way(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) const;
    void report(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome);
    void report_problems(const std::string &source, const engine::Outcome &outcome);
    void loss(const std::string &source, const std::string &destination, const engine::Loss &loss) override;
    void tell_loss(const std::string &source, const std::string &destination, const engine::Loss &loss, bool told);
    void report_losses(const std::string &source, const engine::Outcome &outcome);
    void tell_receipt();
    void tell_old_names();
    void note_for_report(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome);
    bool write_report(int status);
    void verbose_line(const std::string &source, const engine::Outcome &outcome);
    std::string entry_line(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) const;
    void tell_stop(size_t planned);
    void tell_passed_over();
    std::string counts_line() const;
    std::string summary_line(size_t planned, int status) const;
    const char *command() const;
    void advance(int64_t bytes);
    bool updates() const { return m_options.transfer.conflict == engine::Conflict::update; }
    bool copies() const { return m_options.transfer.operation == engine::Operation::copy; }

    const BatchOptions &m_options;
    Console m_console;
    engine::Transfer m_transfer;
    Counts m_entries, m_directories;
    Receipt m_receipt;
    Report m_report;
    int m_cloned = 0, m_backups = 0;
    int m_same = 0;    // already
    int m_inPlace = 0; // written so
    // Old files of which other names are left, by what was told of them last: this run may replace those, too.
    std::map<std::pair<dev_t, ino_t>, engine::Outcome> m_oldNamed;
    int64_t m_errors = 0;
    int m_staying = 0;              // sources of a move, for what was lost of them
    int m_unmade = 0;               // of those: nothing of them is at the destination
    engine::LossSet m_stayingFor{}; // which of that may be accepted, and lets them go then
    bool m_treeSeen = false;
    bool m_below = false; // names are made anew, with the directories on their way
    bool m_directoriesAlone = false;
    int m_onTheWay = 0;                                            // of those, directories of a move, which stay
    int m_keptSources = 0, m_keptFiles = 0, m_keptDirectories = 0; // of a move, and those of them that are done
    bool m_failed = false;
    int m_passedOver = 0;      // for something stands there, which the caller wants to stay
    int64_t m_behind = 0;      // for the progress line: all that is done with, however it ended
    int64_t m_filesBehind = 0; // the same, counted
    int64_t m_filesUndone = 0; // of those that are behind: they failed, or were stopped
    int64_t m_bytesUndone = 0;
    int64_t m_filesBegun = 0; // those, or of a tree that the library copies those that it has begun
    int64_t m_bytes = 0;      // the same with the part of the file under way
    int64_t m_copied = 0;     // what really arrived
};

} // namespace tool
