#include "tools/vexofileop/commands/path_work.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/report/problem.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/terminal/signals.h"

#include <fmt/format.h>
#include <sys/stat.h>

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
        // What is no directory has no slash behind its name, which an absolute path has lost.
        if (struct stat found{}; given.size() > 1 && given.ends_with('/') && ::lstat(path.c_str(), &found) == 0 &&
                                 !S_ISDIR(found.st_mode) && !S_ISLNK(found.st_mode)) {
            throw engine::Failure(engine::problem_of_slash(found.st_mode).reason);
        }
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
