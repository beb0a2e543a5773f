#include "tools/engine/stores/store_survey.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/store/store.h"

#include <fmt/format.h>

namespace engine {

void survey_stores(const HeldEntry &entry, const SurveyOptions &options, StoreMender *mender,
                   const Quarantine *quarantine, SurveyWatcher &watcher, SurveyTotals &totals) {
    const CheckHooks hooks{[&](const std::string &path, const std::string &reason) { watcher.trouble(path, reason); },
                           [&] { return watcher.stopped(); }};
    StoreWalk walk{.visit = {}, .unreadable = hooks.trouble, .stopped = hooks.stopped};
    walk.visit = [&](StorePlace place, const std::string &only) {
        totals.directories += only.empty() ? 1 : 0;
        try {
            place.kind = store_kind(volume_type(place.path, fmt::format("/proc/self/fd/{}", place.directory)));
            DirectoryFindings findings = check_directory(place, only, hooks);
            totals.stores += findings.stores;
            if (mender != nullptr) {
                mender->mend(place, findings.found, hooks.stopped);
            }
            for (const FoundInStore &one : findings.found) {
                watcher.found(one.finding);
            }
        } catch (const Failure &failure) {
            watcher.trouble(place.path, failure.what());
        }
    };
    walk.passed = [&](const struct stat &directory) { return quarantine != nullptr && quarantine->is(directory); };
    walk_stores(entry, options, walk);
}

} // namespace engine
