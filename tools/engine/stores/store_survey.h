// Going through the stores of a file, a directory or a tree, to check them or to mend them as well.
#pragma once

#include "tools/engine/stores/finding.h"
#include "tools/engine/stores/store_repair.h"
#include "tools/engine/stores/store_walk.h"
#include "tools/engine/walk/held_entry.h"

#include <cstdint>
#include <string>

namespace engine {

class SurveyWatcher {
  public:
    virtual ~SurveyWatcher() = default;
    virtual bool stopped() const = 0;
    virtual void found(const Finding &finding) = 0;
    // What could not be looked into.
    virtual void trouble(const std::string &path, const std::string &reason) = 0;
};

struct SurveyTotals {
    int64_t directories = 0, stores = 0;
};

// What is kept for an entry, and of a directory what is kept for all that lies in it. `mender`: null for a check, which
// changes nothing, or the one that works with `quarantine`, which is not gone into. Throws Failure for what has no
// store, or is one.
void survey_stores(const HeldEntry &entry, const SurveyOptions &options, StoreMender *mender,
                   const Quarantine *quarantine, SurveyWatcher &watcher, SurveyTotals &totals);

} // namespace engine
