// What a copy or a move tells, as the caller's callbacks hear it.
#pragma once

#include "tools/binding/binding.h"
#include "tools/binding/guard.h"
#include "tools/engine/losses/loss.h"
#include "tools/engine/report/names.h"
#include "tools/engine/report/outcome.h"
#include "tools/engine/transfer/transfer_observer.h"
#include "tools/engine/walk/paths.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace binding {

int32_t status_of(engine::Status status);

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

  private:
    const VexoCallbacks &m_callbacks;
    Stop m_stop;
    Teller m_teller;
};

} // namespace binding
