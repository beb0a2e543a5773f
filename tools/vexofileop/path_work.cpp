#include "tools/vexofileop/path_work.h"

#include "tools/vexofileop/commands.h"
#include "tools/vexofileop/failure.h"
#include "tools/vexofileop/names.h"
#include "tools/vexofileop/paths.h"
#include "tools/vexofileop/signals.h"

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
    const std::string path = absolute_path(given);
    try {
        task(path);
        ++m_done;
    } catch (const Failure &failure) {
        m_console.message(fmt::format("{}: {}", displayed(path), failure.what()));
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
