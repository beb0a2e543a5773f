// A plan of copy or move: what is said of each entry, of what would be lost and of the room, and the status that the
// run would have.
#pragma once

#include "tools/engine/plan/plan.h"
#include "tools/vexofileop/arguments/errands.h"
#include "tools/vexofileop/commands/batch.h"
#include "tools/vexofileop/output/receipt.h"
#include "tools/vexofileop/output/report.h"
#include "tools/vexofileop/terminal/console.h"

#include <string>
#include <vector>

namespace tool {

struct PlanRunOptions {
    engine::PlanOptions plan;
    std::string report = {}; // the file that it is written to; empty: none
    bool stopOnError = false, verbose = false, json = false;
    int64_t mostErrors = 0;        // as for the run
    bool allOrNothing = false;     // an entry that cannot be copied ends the run, with nothing done
    const char *command = nullptr; // where it is another one than the operation's
};

// Those of a plan that a run of one request has options for.
PlanRunOptions plan_options_of(const BatchOptions &batch, bool probe);

class PlanRun : protected engine::PlanObserver {
  public:
    explicit PlanRun(const PlanRunOptions &options)
        : m_options(options), m_receipt(options.plan.transfer.accepted), m_planner(options.plan, *this),
          m_report(std::string("plan ") + command(), options.plan.transfer.accepted) {}
    // The exit status that the run would have.
    int run(const std::vector<Errand> &errands);

  protected:
    // A run is these two, and what a command does beside.
    void plan(const std::vector<Errand> &errands);
    int finish();
    // What a command has to add to the line and to the object at the end.
    virtual std::string more_counts() const { return {}; }
    virtual void add_more(Json &) const {}
    const char *command() const {
        return m_options.command != nullptr ? m_options.command : word_of(m_options.plan.transfer.operation);
    }

    bool stopped() const override;
    void tree(const std::string &) override { m_treeSeen = true; }
    void entry(const engine::PlannedEntry &planned) override;
    void loss(const std::string &source, const std::string &destination, const engine::Loss &loss) override;
    void tell_loss(const std::string &source, const std::string &destination, const engine::Loss &loss,
                   const char *indent);
    std::string entry_line(const engine::PlannedEntry &planned) const;
    void report(const engine::PlannedEntry &planned);
    int written(int status);
    void say(const engine::PlannedEntry &planned);
    void tell_room(const engine::VolumePlan &volume);
    std::string summary_line(int status) const;

    const PlanRunOptions &m_options;
    Console m_console;
    Receipt m_receipt;
    engine::Planner m_planner;
    Report m_report;
    int64_t m_deeds[6] = {}; // by Deed, of all entries
    int64_t m_directories = 0, m_files = 0, m_done = 0, m_same = 0, m_cloned = 0, m_bytes = 0, m_staying = 0;
    int m_succeeded = 0;
    bool m_directoriesAlone = false; // nothing else is named
    int64_t m_errors = 0;
    bool m_failed = false, m_anyFailed = false, m_treeSeen = false;
    size_t m_asked = 0; // files and links
};

} // namespace tool
