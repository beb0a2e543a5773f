// What a backup by the archive bit rests on, and the book that it keeps: what has arrived, the list of that, and the
// bits that are cleared for it.
#pragma once

#include "tools/engine/archive/arrival_list.h"
#include "tools/engine/archive/arrivals.h"
#include "tools/engine/archive/bit_clearing.h"
#include "tools/engine/losses/loss.h"
#include "tools/engine/report/outcome.h"
#include "tools/engine/transfer/transfer_options.h"

#include <cstdint>
#include <optional>
#include <string>

namespace engine {

struct BackupTerms {
    std::string source, destination = {}; // absolute paths of directories
    bool oneFileSystem = false;
    bool full = false;     // everything goes, whether it has the bit or not
    bool keepBits = false; // none is cleared
    LossSet accepted = {};
    Sync sync = Sync::none;
};

// What keeps a backup from being begun, since its volumes could not tell it what to copy, or would not let it clear the
// bits.
struct BackupGround {
    enum class Refusal { none, unknown, no_bits, read_only };
    Refusal refusal = Refusal::none;
    std::string volume = {};  // of which that is so
    std::string reason = {};  // of `unknown`
    std::string without = {}; // one that keeps no bits, of a backup that needs none; empty: none
};
BackupGround ground_of_backup(const BackupTerms &terms);

class BackupBook {
  public:
    // Begins the list, so that a backup without one is none. Throws Failure.
    explicit BackupBook(const BackupTerms &terms);

    // What became of an entry of the copy: all of them are told. False: no list will be there.
    bool note(EntryKind kind, const std::string &source, const Outcome &outcome);
    // A volume was written out as a whole, and what came of it.
    void written_out(const std::optional<Problem> &problem);
    // The list gets its name, once everything is over: of what has no bit any more it tells where it is. Why it has
    // not, so that no bit is cleared; empty: it has.
    std::string put_in_place();
    const std::string &listed() const { return m_listed; } // where it is
    // Of what is in the list. Throws Failure where that cannot be read back.
    void clear_bits(BitObserver &observer) const;
    int64_t files() const { return m_files; } // that are in the backup, whether or not they were before

  private:
    void add(EntryKind kind, const std::string &source, const Outcome &outcome);

    BackupTerms m_terms;
    ArrivalList m_list;
    Arrivals m_arrivals;
    std::string m_unlisted = {}; // why there is no list
    std::string m_listed = {};
    bool m_written = true; // all of it is on the disk
    int64_t m_files = 0, m_failures = 0;
};

} // namespace engine
