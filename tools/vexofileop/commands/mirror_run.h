// A mirror, and the plan of one: a copy that updates, and then the removal of what the source has not.
#pragma once

#include "tools/engine/mirror/mirror_pair.h"
#include "tools/engine/mirror/two_passes.h"
#include "tools/vexofileop/commands/batch.h"
#include "tools/vexofileop/commands/plan_run.h"
#include "tools/vexofileop/commands/surplus_run.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tool {

struct MirrorOptions {
    BatchOptions batch;
    bool force = false, ask = false; // never, or before each removal; else once
    bool leftOutToo = false;         // what a selection leaves out is removed, too
    bool allowEmpty = false;         // of a source without entries, too
    int64_t most = -1;               // that are removed; below 0: any number
    bool probe = true;               // of a plan
};

// Throws UsageError where what is kept below a directory could take the place of what is mirrored.
void refuse_backups(const engine::MirrorPair &pair, const engine::BackupOptions &backup);

class MirrorRun : private Batch {
  public:
    // The options outlive this.
    MirrorRun(const MirrorOptions &options, const engine::MirrorPair &pair)
        : Batch(options.batch), m_mirror(options), m_pair(pair) {}
    // The exit status.
    int run();

  private:
    void entry(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) override;
    void arrived(const std::string &directory, int files, int64_t bytes) override;
    std::string more_counts() const override;
    void add_more(Json &summary) const override;
    SurplusRun::Options surplus_options(bool rehearsal);
    bool may_begin();
    void refuse(const char *why);
    void remove();
    bool remove(SurplusRun &surplus);

    const MirrorOptions &m_mirror;
    const engine::MirrorPair &m_pair;
    engine::TwoPasses m_passes;
    int64_t m_surplus = -1; // that was there at the beginning; below 0: nobody has counted
    int64_t m_removed = 0, m_left = 0;
    const char *m_refused = nullptr; // why nothing, or nothing else, was removed
};

class MirrorPlan : private PlanRun {
  public:
    // The options outlive this.
    MirrorPlan(const PlanRunOptions &options, const MirrorOptions &mirror, const engine::MirrorPair &pair)
        : PlanRun(options), m_mirror(mirror), m_pair(pair) {}
    int run();

  private:
    void entry(const engine::PlannedEntry &planned) override;
    std::string more_counts() const override;
    void add_more(Json &summary) const override;
    bool may_begin(const SurplusRun::Options &counting);
    int64_t counted_surplus(const SurplusRun::Options &counting);
    void plan_late(const SurplusRun::Options &options);
    void plan_late(const std::string &source, const std::string &destination);

    const MirrorOptions &m_mirror;
    const engine::MirrorPair &m_pair;
    std::vector<engine::PlannedEntry> m_late = {};
    std::string m_standIn = {}, m_meant = {}; // of a late one
    bool m_incomplete = false;
    int64_t m_removed = 0, m_left = 0;
    const char *m_refused = nullptr;
};

} // namespace tool
