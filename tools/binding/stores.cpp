#include "tools/binding/binding.h"
#include "tools/binding/guard.h"
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/report/names.h"
#include "tools/engine/stores/conversion.h"
#include "tools/engine/stores/quarantine.h"
#include "tools/engine/stores/store_survey.h"
#include "tools/engine/stores/store_undo.h"
#include "tools/engine/walk/held_entry.h"

#include <array>
#include <fmt/format.h>
#include <optional>
#include <string>
#include <vector>

namespace binding {
namespace {

engine::SurveyOptions survey_of(uint32_t flags) {
    return {.recursive = (flags & VEXO_STORES_RECURSIVE) != 0, .oneVolume = (flags & VEXO_STORES_ONE_VOLUME) != 0};
}

// What those who go through stores have in common.
class StoreTelling {
  public:
    explicit StoreTelling(const VexoCallbacks &callbacks) : m_callbacks(callbacks), m_stop(callbacks) {}

    const VexoCallbacks &callbacks() const { return m_callbacks; }
    bool stopped() const { return m_stop.asked(); }
    void trouble(const std::string &path, const std::string &reason) const {
        if (m_callbacks.failed != nullptr) {
            const engine::Problem problem{.reason = reason};
            const VexoProblem told = problem_of(problem);
            m_callbacks.failed(m_callbacks.data, path.c_str(), &told);
        }
    }

  private:
    const VexoCallbacks &m_callbacks;
    Stop m_stop;
};

class Surveyed : public engine::SurveyWatcher {
  public:
    explicit Surveyed(const VexoCallbacks &callbacks) : m_telling(callbacks) {}

  private:
    bool stopped() const override { return m_telling.stopped(); }
    void found(const engine::Finding &finding) override {
        constexpr std::array states{VEXO_FOUND, VEXO_MENDED, VEXO_LEFT};
        const VexoFinding told{.name = engine::finding_row(finding.kind).name,
                               .place = finding.place.c_str(),
                               .file = finding.file.c_str(),
                               .belongs = finding.belongs.c_str(),
                               .detail = finding.detail.c_str(),
                               .remedy = finding.remedy.c_str(),
                               .reason = finding.reason.c_str(),
                               .state = states[static_cast<size_t>(finding.state)]};
        if (m_telling.callbacks().finding != nullptr) {
            m_telling.callbacks().finding(m_telling.callbacks().data, &told);
        }
    }
    void trouble(const std::string &path, const std::string &reason) override { m_telling.trouble(path, reason); }

    StoreTelling m_telling;
};

class Converted : public engine::ConversionWatcher {
  public:
    Converted(const VexoCallbacks &callbacks, engine::LossSet accepted) : m_telling(callbacks), m_accepted(accepted) {}

  private:
    bool stopped() const override { return m_telling.stopped(); }
    void store(const engine::Conversion &conversion) override {
        constexpr std::array states{VEXO_CONVERTED, VEXO_CONVERTIBLE, VEXO_STORE_LEFT};
        std::vector<VexoLoss> losses;
        losses.reserve(conversion.losses.size());
        for (const engine::Loss &loss : conversion.losses) {
            losses.push_back(loss_of(loss, m_accepted));
        }
        const VexoConversion told{.file = conversion.file.c_str(),
                                  .source_form = engine::form_name(conversion.from),
                                  .form = engine::form_name(conversion.to),
                                  .reason = conversion.reason.c_str(),
                                  .state = states[static_cast<size_t>(conversion.state)],
                                  .loss_count = static_cast<int32_t>(losses.size()),
                                  .losses = losses.data()};
        if (m_telling.callbacks().converted != nullptr) {
            m_telling.callbacks().converted(m_telling.callbacks().data, &told);
        }
    }
    void trouble(const std::string &path, const std::string &reason) override { m_telling.trouble(path, reason); }

    StoreTelling m_telling;
    engine::LossSet m_accepted;
};

class Undone : public engine::UndoWatcher {
  public:
    explicit Undone(const VexoCallbacks &callbacks) : m_telling(callbacks) {}

  private:
    bool stopped() const override { return m_telling.stopped(); }
    void undone(const std::string &place, State state, const std::string &reason) override {
        constexpr std::array states{VEXO_DONE, VEXO_SKIPPED, VEXO_FAILED};
        const engine::Problem problem{.reason = reason};
        const VexoProblem told = problem_of(problem);
        if (m_telling.callbacks().removed != nullptr) {
            m_telling.callbacks().removed(m_telling.callbacks().data, place.c_str(), states[static_cast<size_t>(state)],
                                          state == State::left ? &told : nullptr);
        }
    }

    StoreTelling m_telling;
};

} // namespace
} // namespace binding

extern "C" {

int vexo_check_stores(const char *path, uint32_t flags, const char *quarantine, const VexoCallbacks *callbacks,
                      VexoSurveyed *result, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        std::optional<engine::Quarantine> kept;
        std::optional<engine::StoreMender> mender;
        if (quarantine != nullptr) {
            kept.emplace(binding::path_of(quarantine));
            mender.emplace(*kept);
        }
        engine::SurveyTotals totals;
        binding::Surveyed watcher(*callbacks);
        engine::survey_stores(engine::HeldEntry(binding::path_of(path)), binding::survey_of(flags),
                              mender ? &*mender : nullptr, kept ? &*kept : nullptr, watcher, totals);
        *result = {
            .directories = totals.directories, .stores = totals.stores, .quarantined = kept && kept->is_used() ? 1 : 0};
    });
}

int vexo_undo_repair(const char *quarantine, const VexoCallbacks *callbacks, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        binding::Undone watcher(*callbacks);
        engine::undo_repairs(binding::path_of(quarantine), watcher);
    });
}

int vexo_convert_stores(const char *path, const char *form, uint32_t flags, uint64_t accepted,
                        const VexoCallbacks *callbacks, VexoSurveyed *result, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        const engine::ConversionOptions options{.to = engine::form_of(form),
                                                .survey = binding::survey_of(flags),
                                                .dryRun = (flags & VEXO_STORES_DRY_RUN) != 0,
                                                .accepted = binding::losses_of(accepted)};
        if (options.to == engine::StoreKind::none) {
            throw engine::InvalidRequest(fmt::format("{} is no form of a store", engine::displayed(form)));
        }
        engine::ConversionTotals totals;
        binding::Converted watcher(*callbacks, options.accepted);
        engine::convert_stores(engine::HeldEntry(binding::path_of(path)), options, watcher, totals);
        *result = {.directories = totals.directories, .stores = totals.entries, .quarantined = 0};
    });
}

} // extern "C"
