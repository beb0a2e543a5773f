// Copies or moves one file and finds out what really became of it.
//
// The bytes are the library's work. What is made stands under a private name until it is whole, and then takes its own
// at once: what stood there is as it was until that moment, and a file that has its name is all there. It is compared
// with its source before that, without reading data unless that was asked for. A move to another volume removes its
// source last, if nothing is lost that was not accepted, and it still is what was copied.
#pragma once

#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/compare/linked_names.h"
#include "tools/engine/transfer/backup.h"
#include "tools/engine/transfer/clone_policy.h"
#include "tools/engine/transfer/file_conflict.h"
#include "tools/engine/transfer/held_directory.h"
#include "tools/engine/transfer/ledger.h"
#include "tools/engine/transfer/link_lease.h"
#include "tools/engine/transfer/link_notes.h"
#include "tools/engine/transfer/linked_files.h"
#include "tools/engine/transfer/pace.h"
#include "tools/engine/transfer/retry_policy.h"
#include "tools/engine/transfer/transfer_observer.h"
#include "tools/engine/transfer/transfer_options.h"
#include "tools/engine/transfer/write_out.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

namespace engine {

// What the caller knows of the two directories that a transfer goes from and to.
struct Surroundings {
    bool sourceWithoutStore = false;     // no "@eaDir" beside the source
    bool destinationNew = false;         // this run has made it, so that what stands there is an exception
    const HeldDirectory *from = nullptr; // nothing: opened by the path
    const HeldDirectory *to = nullptr;
    std::vector<Loss> known = {}; // what is lost of it already
};

class FileTransfer {
  public:
    // The observer outlives this. It is told the progress, and asked.
    FileTransfer(const TransferOptions &options, TransferObserver &observer)
        : m_options(options), m_observer(observer), m_clones(options), m_backups(options.backup),
          m_pace(options.bytesPerSecond, options.clock != nullptr ? *options.clock : machine_clock()),
          m_patience(options.retries, options.clock != nullptr ? *options.clock : machine_clock(), observer) {}

    // Others carry files of the same request, by whom the ledger is kept. It outlives this.
    void share(Ledger &ledger) {
        m_ledger = &ledger;
        m_written.share(ledger, Ledger::Kind::entry);
    }
    // What all of them know together, with the process that keeps the ledger.
    WrittenEntries &written() { return m_written; }
    LinkedFiles &linked() { return m_linked; }
    // A name of a file that has, or had, several has arrived; and no more of them come.
    void named(const LinkedName &name);
    void finish_names();

    // Both paths absolute. `entry`: what lstat says of the source, where the caller has asked already.
    Outcome run(const std::string &source, const std::string &destination, std::optional<struct stat> entry = {},
                Surroundings around = {});

    // What became of an entry that the library has made without this: what can come late is given to it, and another
    // name of a file that went before becomes a link.
    std::vector<Loss> losses_of(const HeldDirectory &from, const HeldDirectory &to, const std::string &name);
    // The same of another name alone, without a comparison.
    void link_names(const HeldDirectory &from, const HeldDirectory &to, const std::string &name);
    // It is not replaced by a later one of this run.
    // A directory that was made, so that no file of another name gets into its place.
    void made_directory(const struct stat &made, const std::string &sourceName, const HeldDirectory &to,
                        const std::string &name) {
        m_written.add(made, sourceName, to, name);
    }
    // A file or link that was made without this.
    void made_plain(const struct stat &made, const std::string &sourceName, const HeldDirectory &to) {
        m_written.add(made, sourceName, to, sourceName);
    }
    // All of those in a directory that was made for them.
    void made_plain_in(const HeldDirectory &to) { m_written.add_all_in(to); }
    // Whether a file of another name of the source has become what stands there.
    bool is_clash(const struct stat &there, const std::string &sourceName, const HeldDirectory &to,
                  const std::string &name) const {
        return m_written.is_clash(there, sourceName, to, name);
    }
    void remember(const HeldDirectory &to, const std::string &name);
    bool compares() const { return m_options.compared; }
    // Whether files share their data with their copies, so that it takes this to copy them.
    bool clones(const HeldDirectory &from, const HeldDirectory &to) { return m_clones.wants(from, to); }
    bool keeps_hard_links() const { return m_options.hardLinks; }
    bool keeps_source(const Outcome &outcome) const { return engine::keeps_source(outcome, m_options.accepted); }
    bool accepts(const Outcome &outcome) const { return !has_failing_loss(outcome, m_options.accepted); }
    // One that failed with nothing but losses that are accepted has not failed.
    Outcome settled(Outcome outcome) const;
    // Whether what failed is to be tried once more; it waits for that.
    RetryPolicy &patience() { return m_patience; }
    // Where the paths of destinations go down from, for backups.
    // `source`: what is to go there.
    void goes_below(const std::string &top, const std::string &source) {
        m_backups.begin(top);
        if (m_options.operation == Operation::move && m_options.hardLinks) {
            m_notes.begin(top, source, m_linked);
        }
    }
    // What another process has to note of a file of several names.
    void note_link(std::string_view record) {
        m_notes.add(LinkNotes::Record::from(record), m_options.sync != Sync::none);
    }
    // What became of an entry of the request, whoever has carried it.
    void came_of(const Outcome &outcome) { m_failed = m_failed || outcome.status == Status::failed; }
    // The run is over. A run after one that was stopped or has failed goes on with what was noted.
    void end_notes() { m_notes.end((m_failed || m_observer.stopped()) && m_linked.has_noted()); }
    // Something is going to be made there.
    void begins_in(const HeldDirectory &to) {
        if (m_options.sync == Sync::volume) {
            m_volumes.begin(to);
        }
    }
    // Before a source goes that was a directory, and at the end of a run.
    std::optional<Problem> write_out_volume(const HeldDirectory &to) const { return m_volumes.write_out(to); }
    void write_out_volumes() { m_volumes.write_out(m_observer); }
    // Before the first file goes into a directory that was there before: what earlier runs have left in it is finished
    // or removed, once a directory.
    void tidy(const HeldDirectory &directory);
    // Somebody else has seen to that.
    void was_tidied(const struct stat &directory) { m_tidied.insert({directory.st_dev, directory.st_ino}); }

  private:
    // What is to be carried of a name, which may be one of several of a file that others have in hand.
    std::optional<struct stat> leased(LinkLease &lease, const HeldDirectory &from, const std::string &name,
                                      const std::optional<struct stat> &entry) const;
    Outcome run_once(const std::string &source, const std::string &destination, const std::optional<struct stat> &entry,
                     const Surroundings &around, bool final, bool &begun);
    struct Attempt; // one file's state, shared with the library's callbacks

    // The directory that the last file lay in: mostly the next one lies beside it.
    static const HeldDirectory &directory_of(HeldDirectory &last, const std::string &path);

    std::optional<Problem> check_source(Attempt &attempt) const;
    Outcome attempted(Attempt &attempt, const std::string &destination, int destinationError);
    std::optional<Outcome> pass_over(Attempt &attempt);
    std::optional<Outcome> pass_over(Attempt &attempt, bool data);
    bool takes_link(Attempt &attempt);
    void look_for_same(Attempt &attempt);
    static bool is_as_good(const Attempt &attempt);
    std::optional<std::vector<Loss>> differences_of_same(Attempt &attempt, bool data, LossSet accepted);
    Outcome rename(Attempt &attempt);
    Outcome copy(Attempt &attempt);
    Outcome place_copy(Attempt &attempt);
    Outcome write_in_place(Attempt &attempt, const struct stat &old);
    static std::optional<Problem> hold_in_place(Attempt &attempt);
    std::optional<Outcome> keep_together(Attempt &attempt);
    static void tell_old_names(const Attempt &attempt, Outcome &outcome);
    Outcome arrived(Attempt &attempt);
    void prove(const Attempt &attempt, Outcome &outcome) const;
    // Whether what is kept beside a source is to be known when it is compared with the copy.
    bool witnesses() const { return m_options.operation == Operation::move || m_options.proofs; }
    static std::optional<Problem> make_anew(Attempt &attempt, std::vector<Loss> &losses);
    std::optional<Problem> link_or_make(Attempt &attempt);
    bool link_again(const struct stat &file, const HeldDirectory &to, const std::string &name);
    std::optional<Problem> make_file(Attempt &attempt, const std::string &name, bool replace);
    static void look_for_store(Attempt &attempt);
    static bool gives_group_more(const Attempt &attempt);
    std::optional<Problem> make_closed(Attempt &attempt, const std::string &name);
    std::optional<Problem> call_library(Attempt &attempt, const HeldDirectory &to, const std::string &name,
                                        bool replace);
    void carry_metadata(Attempt &attempt, const HeldDirectory &to, const std::string &name);
    std::optional<Problem> carry_closed(Attempt &attempt, const std::string &name);
    void prove_claim(const Attempt &attempt);
    void note_links(const Attempt &attempt);
    void remove_source(Attempt &attempt, Outcome &outcome);
    void compare(Attempt &attempt, const std::string &name);
    LinkedNames::Tell tell_apart();
    void note_name(const struct stat &file, const std::string &source, const std::string &destination,
                   const std::optional<struct stat> &there);
    std::optional<Problem> verify(Attempt &attempt, const std::string &name) const;
    std::optional<Problem> refused(Attempt &attempt) const;
    CompareOptions compare_options(bool data) const;
    std::optional<Problem> back_up(Attempt &attempt);
    Outcome not_placed(Attempt &attempt, int number);
    std::optional<Problem> write_out(const Attempt &attempt) const;
    static void find_real_place(Attempt &attempt);
    static bool shares_volume(const Attempt &attempt);

    TransferOptions m_options;
    TransferObserver &m_observer;
    HeldDirectory m_from, m_to;
    WrittenEntries m_written; // destinations of this run
    LinkedFiles m_linked;
    LinkNotes m_notes;
    bool m_failed = false;
    LinkedNames m_names;
    Ledger *m_ledger = nullptr;
    ClonePolicy m_clones;
    Backups m_backups;
    Pace m_pace;
    RetryPolicy m_patience;
    VolumesToWriteOut m_volumes;
    std::set<std::pair<dev_t, ino_t>> m_tidied;
};

} // namespace engine
