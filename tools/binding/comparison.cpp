#include "tools/binding/binding.h"
#include "tools/binding/guard.h"
#include "tools/binding/options.h"
#include "tools/engine/compare/tree_comparison.h"
#include "tools/engine/relocate/relocation.h"

#include <array>
#include <cstdio>

namespace binding {
namespace {

class Compared : public engine::ComparisonObserver {
  public:
    explicit Compared(const VexoCallbacks &callbacks) : m_callbacks(callbacks), m_stop(callbacks) {}

  private:
    bool stopped() const override { return m_stop.asked(); }
    void loss(const std::string &first, const std::string &second, const engine::Loss &loss) override {
        if (m_callbacks.lost != nullptr) {
            const VexoLoss told = loss_of(loss, {});
            m_callbacks.lost(m_callbacks.data, first.c_str(), second.c_str(), &told);
        }
    }
    void extra(const std::string &second, engine::EntryKind kind) override {
        if (m_callbacks.extra != nullptr) {
            m_callbacks.extra(m_callbacks.data, second.c_str(), static_cast<int32_t>(kind));
        }
    }
    void left_over(const std::string &path) override {
        if (m_callbacks.left_over != nullptr) {
            m_callbacks.left_over(m_callbacks.data, path.c_str());
        }
    }
    void same(const std::string &, const std::string &) override {}
    void compared(const std::string &first, engine::EntryKind kind, int64_t bytes) override {
        if (m_callbacks.compared != nullptr) {
            m_callbacks.compared(m_callbacks.data, first.c_str(), static_cast<int32_t>(kind), bytes);
        }
    }
    void progress(int64_t bytes) override {
        if (m_callbacks.progress != nullptr) {
            m_callbacks.progress(m_callbacks.data, bytes);
        }
    }

    const VexoCallbacks &m_callbacks;
    Stop m_stop;
};

class Relocated : public engine::RelocationObserver {
  public:
    Relocated(const VexoCallbacks &callbacks, engine::LossSet accepted)
        : m_callbacks(callbacks), m_stop(callbacks), m_accepted(accepted) {}

  private:
    bool stopped() const override { return m_stop.asked(); }
    void progress(int64_t bytes) override {
        if (m_callbacks.progress != nullptr) {
            m_callbacks.progress(m_callbacks.data, bytes);
        }
    }
    void copied() override {}
    void failed(const std::string &path, const engine::Problem &problem) override {
        if (m_callbacks.failed != nullptr) {
            const VexoProblem told = problem_of(problem);
            m_callbacks.failed(m_callbacks.data, path.c_str(), &told);
        }
    }
    void lost(const std::string &source, const std::string &destination, const engine::Loss &loss) override {
        if (m_callbacks.lost != nullptr) {
            const VexoLoss told = loss_of(loss, m_accepted);
            m_callbacks.lost(m_callbacks.data, source.c_str(), destination.c_str(), &told);
        }
    }

    const VexoCallbacks &m_callbacks;
    Stop m_stop;
    engine::LossSet m_accepted;
};

int32_t end_of(engine::RelocationEnd end) {
    constexpr std::array ends{VEXO_RELOCATED,
                              VEXO_RELOCATION_CANCELLED,
                              VEXO_RELOCATION_NOT_COPIED,
                              VEXO_RELOCATION_UNFINISHED,
                              VEXO_RELOCATION_INCOMPLETE,
                              VEXO_SOURCE_REMAINS,
                              VEXO_OLD_REMAINS};
    return ends[static_cast<size_t>(end)];
}

} // namespace
} // namespace binding

extern "C" {

int vexo_compare(const char *first, const char *second, const VexoComparisonOptions *options,
                 const VexoCallbacks *callbacks, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        const engine::TreeComparisonOptions comparison{.data = options->data != 0,
                                                       .times = options->times != 0,
                                                       .reversibleNames = options->reversible_names != 0,
                                                       .selection =
                                                           binding::selection_of(options->selection, *callbacks)};
        binding::Compared observer(*callbacks);
        engine::compare_trees(binding::operand_of(first), binding::operand_of(second), comparison, observer,
                              binding::hands_of(options->jobs, *callbacks));
    });
}

int vexo_relocate(const char *source, const char *destination, uint32_t flags, uint64_t accepted,
                  const VexoCallbacks *callbacks, VexoRelocation *result, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        const engine::RelocationPlan plan = engine::plan_relocation({.source = binding::entry_path_of(source),
                                                                     .destination = binding::entry_path_of(destination),
                                                                     .keepSource = (flags & VEXO_KEEP_SOURCE) != 0,
                                                                     .accepted = binding::losses_of(accepted),
                                                                     .specials = (flags & VEXO_MAKE_SPECIALS) != 0});
        binding::Relocated observer(*callbacks, plan.request.accepted);
        const engine::RelocationResult came = engine::relocate(plan, observer);
        result->end = binding::end_of(came.end);
        result->missing = came.missing;
        result->in_place = came.inPlace ? 1 : 0;
        result->again = came.noteStays ? 1 : 0;
        binding::set_failure(&result->problem, came.problem.reason.c_str(), came.problem.code, came.problem.number);
        (void)std::snprintf(result->aside, sizeof result->aside, "%s", came.aside.c_str());
    });
}

} // extern "C"
