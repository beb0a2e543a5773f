#include "tools/vexofileop/commands/store/store_undo_run.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/stores/store_undo.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/terminal/console.h"
#include "tools/vexofileop/terminal/signals.h"

#include <cstdint>
#include <fmt/format.h>

namespace tool {
namespace {

class UndoRun : private engine::UndoWatcher {
  public:
    UndoRun(bool json, bool quiet) : m_json(json), m_quiet(quiet) {}

    int run(const std::string &quarantine) {
        bool trouble = false;
        try {
            engine::undo_repairs(quarantine, *this);
        } catch (const engine::Failure &failure) {
            m_console.message(fmt::format("{}: {}", engine::displayed(quarantine), failure.what()));
            trouble = true;
        }
        int status = trouble ? exitStoreTrouble : m_left > 0 ? exitStoreLeft : exitStoreClean;
        if (stopped()) {
            m_console.message(fmt::format("stopped; {} put back", m_restored));
            status = exitSignal + stop_signal();
        }
        if (m_json) {
            Json summary;
            summary.add_text("event", "summary");
            summary.add_text("operation", "store undo");
            summary.add_number("restored", m_restored);
            summary.add_number("as_it_was", m_same);
            summary.add_number("left", m_left);
            summary.add_flag("cancelled", stopped());
            summary.add_number("exit_status", status);
            m_console.line(summary.line());
        }
        return m_console.check_output() || status != exitStoreClean ? status : exitStoreTrouble;
    }

  private:
    bool stopped() const override { return stop_signal() != 0; }

    void undone(const std::string &place, State state, const std::string &reason) override {
        (state == State::restored ? m_restored : state == State::was_so ? m_same : m_left) += 1;
        const char *const word = state == State::restored ? "restored" : state == State::was_so ? "as-it-was" : "left";
        if (m_json) {
            Json event;
            event.add_text("event", "undone");
            event.add_text("status", word);
            event.add_name("path", place);
            if (!reason.empty()) {
                event.add_text("reason", engine::as_utf8(reason));
            }
            m_console.line(event.line());
        } else if (state == State::left) {
            m_console.message(fmt::format("{}: {}", engine::displayed(place), reason));
        } else if (!m_quiet) {
            m_console.line(fmt::format("{}: {}", engine::displayed(place),
                                       state == State::restored ? "put back" : "is as it was"));
        }
    }

    bool m_json, m_quiet;
    Console m_console;
    int64_t m_restored = 0, m_same = 0, m_left = 0;
};

} // namespace

int undo_repair(const std::string &quarantine, bool json, bool quiet) {
    return UndoRun(json, quiet).run(quarantine);
}

} // namespace tool
