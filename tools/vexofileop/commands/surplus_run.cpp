#include "tools/vexofileop/commands/surplus_run.h"

#include "tools/engine/report/names.h"
#include "tools/engine/walk/look.h"
#include "tools/vexofileop/output/entry_text.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/terminal/signals.h"

#include <fmt/format.h>
#include <utility>

namespace tool {

void SurplusRun::entry(const std::string &path, mode_t mode, engine::Status status, const engine::Problem *problem) {
    if (status == engine::Status::skipped && problem == nullptr && stop_signal() != 0) {
        return; // the signal was the answer
    }
    const std::string backup = std::exchange(m_backup, {});
    m_removed += status == engine::Status::done ? 1 : 0;
    m_backups += backup.empty() ? 0 : 1;
    m_failed += status == engine::Status::failed ? 1 : 0;
    m_mounts += status == engine::Status::skipped && problem != nullptr ? 1 : 0;
    if (m_options.gathers && status == engine::Status::done) {
        if (const auto found = engine::look(path)) {
            m_going.insert({found->st_dev, found->st_ino});
        }
    }
    if (m_options.silent) {
        return;
    }
    m_console.removed(m_removed);
    if (problem != nullptr) {
        m_console.message(problem_text(engine::displayed(path), *problem));
    }
    if (m_options.json) {
        m_console.line(line(path, mode, status, problem, backup));
    } else if (status == engine::Status::done && (m_options.verbose || m_options.surplus.rehearsal)) {
        m_console.line(fmt::format("{}: {}{}", m_options.surplus.rehearsal ? "remove" : "removed",
                                   engine::displayed(path),
                                   backup.empty() ? "" : fmt::format(" (backup: {})", engine::displayed(backup))));
    }
    if (m_options.report && status == engine::Status::done) {
        m_report.count(Fate::removed, 1, 0);
        if (!backup.empty()) {
            m_report.kept(path, backup);
        }
    } else if (m_options.report && problem != nullptr) {
        m_report.count(Fate::failed, 1, 0);
        m_report.problem("", path, problem->reason);
    }
}

std::string SurplusRun::line(const std::string &path, mode_t mode, engine::Status status,
                             const engine::Problem *problem, const std::string &backup) const {
    Json line;
    if (m_options.surplus.rehearsal) {
        line.add_text("event", "removal");
        line.add_text("kind", word_of(engine::entry_kind(mode)));
    } else {
        line.add_text("event", word_of(engine::entry_kind(mode)));
        line.add_text("operation", "remove");
        line.add_text("status", word_of(status));
    }
    line.add_name("path", path);
    if (!backup.empty()) {
        line.add_name("backup", backup);
    }
    if (problem != nullptr) {
        line.add_object("error", problem_object(*problem));
    }
    return line.line();
}

bool SurplusRun::may_remove(const std::string &path, engine::RemovalQuestion question, std::optional<int64_t> ahead) {
    if (question == engine::RemovalQuestion::into_directory) {
        return true;
    }
    const int64_t before = m_removed + ahead.value_or(0);
    if (m_options.most >= 0 && before >= m_options.most) {
        m_limited = true;
        return false;
    }
    if (m_options.silent) {
        return true;
    }
    if (!m_options.ask) {
        return is_agreed(before);
    }
    if (!ahead && m_yes.erase(path) > 0) {
        return true;
    }
    const bool yes = m_console.confirm(fmt::format("remove {}?", engine::displayed(path)));
    if (yes && ahead) {
        m_yes.insert(path);
    }
    return yes;
}

// What came to the destination, or went from the source, while it was copied.
bool SurplusRun::is_agreed(int64_t before) {
    if (m_options.agreed < 0 || before < m_options.agreed || m_agreedToMore) {
        return true;
    }
    m_agreedToMore = !m_refused && m_console.confirm("there is more to remove by now than was said; remove it, too?");
    m_refused = !m_agreedToMore;
    return m_agreedToMore;
}

void SurplusRun::unreadable(const std::string &path, const engine::Problem &problem) {
    entry(path, S_IFDIR, engine::Status::failed, &problem);
}

} // namespace tool
