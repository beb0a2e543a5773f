#include "tools/engine/transfer/transfer.h"

#include "tools/binding/binding.h"
#include "tools/binding/guard.h"
#include "tools/binding/options.h"
#include "tools/binding/run_observer.h"
#include "tools/engine/plan/plan.h"
#include "tools/engine/report/codes.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <array>
#include <cerrno>
#include <sys/stat.h>

namespace binding {
namespace {

// One request as the engine takes it.
struct Errand {
    std::string source, destination;
};

// What a destination that is a directory means, and a slash at its end, is as for cp and mv.
Errand errand_of(const char *source, const char *destination, const VexoTransferOptions &options) {
    Errand errand{operand_of(source), path_of(destination)};
    (void)(options.operation == VEXO_MOVE ? leaving_path_of(source) : entry_path_of(source));
    const auto there = engine::look_through(errand.destination);
    if (there && S_ISDIR(there->st_mode) && options.into != 0) {
        errand.destination = engine::joined(errand.destination, engine::base_name(path_of(source)));
        return errand;
    }
    const auto carried = engine::look(path_of(source));
    const bool asDirectory = operand_of(destination).ends_with('/') && errand.destination != "/";
    if (asDirectory && !(there && S_ISDIR(there->st_mode)) && !(carried && S_ISDIR(carried->st_mode))) {
        errno = there ? ENOTDIR : ENOENT;
        engine::throw_errno();
    }
    if (errand.destination == "/") {
        throw engine::InvalidRequest("the root is no name for a copy");
    }
    return errand;
}

int32_t status_of(engine::Deed deed) {
    constexpr std::array statuses{VEXO_PLAN_NEW,    VEXO_PLAN_REPLACE, VEXO_PLAN_MERGE,
                                  VEXO_PLAN_RENAME, VEXO_PLAN_SKIP,    VEXO_PLAN_FAIL};
    return statuses[static_cast<size_t>(deed)];
}

class PlannedObserver : public engine::PlanObserver {
  public:
    PlannedObserver(const VexoCallbacks &callbacks, engine::LossSet accepted)
        : m_stop(callbacks), m_teller(callbacks, accepted) {}

  private:
    bool stopped() const override { return m_stop.asked(); }
    void tree(const std::string &) override {}
    void entry(const engine::PlannedEntry &planned) override {
        m_teller.tell(planned.kind, planned.source, planned, status_of(planned.deed), nullptr);
    }
    void loss(const std::string &source, const std::string &destination, const engine::Loss &loss) override {
        m_teller.tell(source, destination, loss);
    }

    Stop m_stop;
    Teller m_teller;
};

void tell_room(const VexoCallbacks &callbacks, const engine::VolumePlan &volume) {
    const VexoRoom room{.directory = volume.directory.c_str(),
                        .bytes_needed = volume.needed.bytes,
                        .inodes_needed = volume.needed.inodes,
                        .bytes_free = volume.free.bytes.value_or(-1),
                        .inodes_free = volume.free.inodes.value_or(-1),
                        .quota_bytes_free = volume.free.quotaBytes.value_or(-1),
                        .quota_inodes_free = volume.free.quotaInodes.value_or(-1),
                        .probed = volume.probed ? 1 : 0};
    callbacks.room(callbacks.data, &room);
}

} // namespace
} // namespace binding

extern "C" {

int vexo_transfer(const char *source, const char *destination, const VexoTransferOptions *options,
                  const VexoCallbacks *callbacks, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        const engine::TransferOptions transfer = binding::options_of(*options, *callbacks);
        const binding::Errand errand = binding::errand_of(source, destination, *options);
        binding::RunObserver observer(*callbacks, transfer.accepted);
        engine::Transfer run(transfer, observer);
        run.share(binding::hands_of(options->jobs, *callbacks));
        run.run(errand.source, errand.destination);
        run.leave();
    });
}

int vexo_plan(const char *source, const char *destination, const VexoTransferOptions *options,
              const VexoCallbacks *callbacks, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        const engine::PlanOptions plan{.transfer = binding::options_of(*options, *callbacks),
                                       .probe = options->probe != 0};
        const binding::Errand errand = binding::errand_of(source, destination, *options);
        binding::PlannedObserver observer(*callbacks, plan.transfer.accepted);
        engine::Planner planner(plan, observer);
        planner.run(errand.source, errand.destination);
        for (const engine::VolumePlan &volume : planner.volumes()) {
            if (callbacks->room != nullptr) {
                binding::tell_room(*callbacks, volume);
            }
        }
    });
}

} // extern "C"
