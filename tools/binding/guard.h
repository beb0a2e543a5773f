// What stands between the engine's C++ and a caller in another language.
#pragma once

#include "tools/binding/binding.h"
#include "tools/engine/losses/loss.h"
#include "tools/engine/report/problem.h"

#include <cstdint>
#include <string>

namespace binding {

// Of the exception that is being handled.
void take_failure(VexoFailure *failure) noexcept;
void set_failure(VexoFailure *failure, const char *text, uint32_t code, int number) noexcept;

// -1, with the reason, where the task throws; else 0.
template <typename Task>
int guarded(VexoFailure *failure, const Task &task) noexcept {
    try {
        task();
        return 0;
    } catch (...) {
        take_failure(failure);
        return -1;
    }
}

// A path from the root. Throws engine::InvalidRequest for none.
std::string path_of(const char *given);
// The same with the slash at its end, where it has one: it asks for a directory, or for what a link leads to.
std::string operand_of(const char *given);
// The path of an entry that has a name in a directory. Throws engine::InvalidRequest for one that has none.
std::string entry_path_of(const char *given);
// The same of what is to lose its name: "." and "photos/." name no entry either, as everybody refuses to remove those.
std::string leaving_path_of(const char *given);

VexoProblem problem_of(const engine::Problem &problem);
VexoLoss loss_of(const engine::Loss &loss, engine::LossSet accepted);
engine::LossSet losses_of(uint64_t bits);

// Asks the caller whether to stop, until it says so.
class Stop {
  public:
    explicit Stop(const VexoCallbacks &callbacks) : m_callbacks(callbacks) {}
    bool asked() const {
        m_stopped = m_stopped || (m_callbacks.stopped != nullptr && m_callbacks.stopped(m_callbacks.data) != 0);
        return m_stopped;
    }

  private:
    const VexoCallbacks &m_callbacks;
    mutable bool m_stopped = false;
};

} // namespace binding
