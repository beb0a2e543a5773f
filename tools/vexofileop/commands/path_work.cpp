#include "tools/vexofileop/commands/path_work.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/terminal/signals.h"

#include <fmt/format.h>

namespace tool {

void PathWork::each(const std::vector<std::string> &given, const Task &task) {
    for (const std::string &path : given) {
        one(path, task);
    }
}

void PathWork::one(const std::string &given, const Task &task) {
    if (stop_signal() != 0) {
        return;
    }
    const std::string path = engine::absolute_path(given);
    try {
        task(path);
        ++m_done;
    } catch (const engine::Failure &failure) {
        m_console.message(fmt::format("{}: {}", engine::displayed(path), failure.what()));
        ++m_failed;
    }
}

int PathWork::finish() {
    const bool written = m_console.check_output();
    if (stop_signal() != 0) {
        m_console.message(fmt::format("stopped; {} done", m_done));
        return exitSignal + stop_signal();
    }
    const int status = exit_status(m_done, m_failed);
    return !written && status == exitAll ? exitSome : status;
}

} // namespace tool
