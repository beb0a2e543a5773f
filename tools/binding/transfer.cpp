#include "tools/engine/transfer/transfer.h"

#include "tools/binding/binding.h"
#include "tools/binding/guard.h"
#include "tools/binding/options.h"
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
#include <vector>

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

int32_t status_of(engine::Status status) {
    constexpr std::array statuses{VEXO_DONE, VEXO_SKIPPED, VEXO_FAILED, VEXO_CANCELLED};
    return statuses[static_cast<size_t>(status)];
}

int32_t status_of(engine::Deed deed) {
    constexpr std::array statuses{VEXO_PLAN_NEW,    VEXO_PLAN_REPLACE, VEXO_PLAN_MERGE,
                                  VEXO_PLAN_RENAME, VEXO_PLAN_SKIP,    VEXO_PLAN_FAIL};
    return statuses[static_cast<size_t>(deed)];
}

// What a run and a plan tell of an entry has the same names in both.
template <typename Told>
uint32_t flags_of(const Told &told) {
    return (told.cloned ? uint32_t{VEXO_ENTRY_CLONED} : 0U) | (told.same ? uint32_t{VEXO_ENTRY_SAME} : 0U) |
           (told.linked ? uint32_t{VEXO_ENTRY_LINKED} : 0U) |
           (told.sourceStays ? uint32_t{VEXO_ENTRY_SOURCE_STAYS} : 0U) |
           (told.inPlace ? uint32_t{VEXO_ENTRY_IN_PLACE} : 0U);
}

// Tells an entry with what was lost of it.
class Teller {
  public:
    Teller(const VexoCallbacks &callbacks, engine::LossSet accepted) : m_callbacks(callbacks), m_accepted(accepted) {}

    template <typename Told>
    void tell(engine::EntryKind kind, const std::string &source, const Told &told, int32_t status,
              const engine::Problem *warning) const {
        if (m_callbacks.entry == nullptr) {
            return;
        }
        std::vector<VexoLoss> losses;
        losses.reserve(told.losses.size());
        for (const engine::Loss &loss : told.losses) {
            losses.push_back(loss_of(loss, m_accepted));
        }
        const VexoProblem problem = told.problem ? problem_of(*told.problem) : VexoProblem{};
        const VexoProblem warned = warning != nullptr ? problem_of(*warning) : VexoProblem{};
        const VexoEntry entry{.source = source.c_str(),
                              .destination = told.destination.c_str(),
                              .bytes = told.bytes,
                              .kind = static_cast<int32_t>(kind),
                              .status = status,
                              .flags = flags_of(told),
                              .loss_count = static_cast<int32_t>(losses.size()),
                              .losses = losses.data(),
                              .problem = told.problem ? &problem : nullptr,
                              .warning = warning != nullptr ? &warned : nullptr,
                              .backup = told.backup.empty() ? nullptr : told.backup.c_str()};
        m_callbacks.entry(m_callbacks.data, &entry);
    }

    // Of an entry that is told of by itself.
    void tell(const std::string &source, const std::string &destination, const engine::Loss &loss) const {
        if (m_callbacks.lost != nullptr) {
            const VexoLoss told = loss_of(loss, m_accepted);
            m_callbacks.lost(m_callbacks.data, source.c_str(), destination.c_str(), &told);
        }
    }

  private:
    const VexoCallbacks &m_callbacks;
    engine::LossSet m_accepted;
};

class RunObserver : public engine::TransferObserver {
  public:
    RunObserver(const VexoCallbacks &callbacks, engine::LossSet accepted)
        : m_callbacks(callbacks), m_stop(callbacks), m_teller(callbacks, accepted) {}

  private:
    bool stopped() const override { return m_stop.asked(); }
    void tree(const std::string &) override {}
    void entry(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) override {
        engine::Outcome told = outcome;
        if (told.problem) {
            engine::name_what_is_full(*told.problem, told.destination);
        }
        m_teller.tell(kind, source, told, status_of(told.status), told.warning ? &*told.warning : nullptr);
    }
    void arrived(const std::string &, int files, int64_t bytes) override {
        if (m_callbacks.arrived != nullptr) {
            m_callbacks.arrived(m_callbacks.data, files, bytes);
        }
    }
    void loss(const std::string &source, const std::string &destination, const engine::Loss &loss) override {
        m_teller.tell(source, destination, loss);
    }
    void progress(int64_t bytes, bool) override {
        if (m_callbacks.progress != nullptr) {
            m_callbacks.progress(m_callbacks.data, bytes);
        }
    }
    void stays(const std::string &directory, const std::vector<std::string> &names) override {
        for (const std::string &name : names) {
            if (m_callbacks.left_over != nullptr) {
                m_callbacks.left_over(m_callbacks.data, engine::joined(directory, name).c_str());
            }
        }
    }
    void written_out(const std::string &directory, const std::optional<engine::Problem> &problem) override {
        if (problem && m_callbacks.failed != nullptr) {
            const VexoProblem told = problem_of(*problem);
            m_callbacks.failed(m_callbacks.data, directory.c_str(), &told);
        }
    }
    bool may_replace(const std::string &) override { return false; } // no policy asks

    const VexoCallbacks &m_callbacks;
    Stop m_stop;
    Teller m_teller;
};

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
        engine::Transfer run(transfer, observer, binding::hands_of(options->jobs, *callbacks));
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
