// A backup by the archive bit, and the plan of one: a copy that is read back, a list of what it has brought, and then
// the clearing of the bits of that.
#pragma once

#include "tools/engine/archive/backup_book.h"
#include "tools/engine/archive/bit_clearing.h"
#include "tools/vexofileop/commands/batch.h"
#include "tools/vexofileop/commands/mirror_run.h"
#include "tools/vexofileop/commands/plan_run.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>

namespace tool {

struct BackupRunOptions {
    BatchOptions batch;
    bool full = false;     // everything goes, whether it has the bit or not
    bool keepBits = false; // none is cleared
    bool probe = true;     // of a plan
};

// What keeps a backup from being begun, since its volumes could not tell it what to copy, or would not let it clear the
// bits; empty: nothing. `note`: what there is to say where it is begun.
std::string refusal_of_backup(const BackupRunOptions &options, const engine::MirrorPair &pair, std::string &note);

class BackupRun : private Batch, private engine::BitObserver {
  public:
    // The options outlive this.
    BackupRun(const BackupRunOptions &options, const engine::MirrorPair &pair)
        : Batch(options.batch), m_backup(options), m_pair(pair) {}
    // The exit status.
    int run();

  private:
    void entry(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) override;
    void written_out(const std::string &directory, const std::optional<engine::Problem> &problem) override;
    void bit(const std::string &source, engine::BitFate fate, const std::string &why) override;
    std::string more_counts() const override;
    void add_more(Json &summary) const override;
    bool begin_list();
    bool list_arrivals();
    void clear_bits();
    void tell_bits();
    void tell_first_one();
    void tell_other_kinds();
    std::string listed() const; // where the list is; empty: there is none

    const BackupRunOptions &m_backup;
    const engine::MirrorPair &m_pair;
    std::optional<engine::BackupBook> m_book = {};
    int64_t m_cleared = 0;
    int64_t m_kept = 0, m_notCleared = 0; // bits that stay for a change, and for a failure
    std::string m_firstKept = {};
    bool m_firstOne = false;      // of what has the archive bit alone, where there was no backup
    std::string m_otherKind = {}; // in the backup, the first that stands in the way of what is a directory now, or none
};

class BackupPlan : private PlanRun {
  public:
    // The options outlive this.
    BackupPlan(const PlanRunOptions &options, const BackupRunOptions &backup, const engine::MirrorPair &pair)
        : PlanRun(options), m_backup(backup), m_pair(pair) {}
    int run();

  private:
    void entry(const engine::PlannedEntry &planned) override;
    std::string more_counts() const override;
    void add_more(Json &summary) const override;

    const BackupRunOptions &m_backup;
    const engine::MirrorPair &m_pair;
    int64_t m_bits = 0;  // to be cleared
    int64_t m_going = 0; // files that would be copied
    // Of files of several names: how many of them have gone by.
    std::map<std::pair<dev_t, ino_t>, nlink_t> m_names = {};
};

} // namespace tool
