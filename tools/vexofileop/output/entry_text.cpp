#include "tools/vexofileop/output/entry_text.h"

#include "tools/engine/report/error_table.h"

#include <fmt/format.h>

namespace tool {
namespace {

std::string reason_text(const engine::Problem &problem, const char *recursion) {
    return problem.needsRecursion ? fmt::format("{}; {}", problem.reason, recursion) : problem.reason;
}

} // namespace

const char *word_of(engine::Status status) {
    switch (status) {
    case engine::Status::done:
        return "done";
    case engine::Status::skipped:
        return "skipped";
    case engine::Status::failed:
        return "failed";
    default:
        return "cancelled";
    }
}

const char *word_of(engine::EntryKind kind) {
    switch (kind) {
    case engine::EntryKind::file:
        return "file";
    case engine::EntryKind::link:
        return "link";
    case engine::EntryKind::directory:
        return "directory";
    default:
        return "other";
    }
}

std::string problem_text(const std::string &subject, const engine::Problem &problem, const char *recursion) {
    const std::string reason = reason_text(problem, recursion);
    return problem.code == 0 ? fmt::format("{}: {}", subject, reason)
                             : fmt::format("{}: {} ({})", subject, reason, engine::code_text(problem.code));
}

Json problem_object(const engine::Problem &problem, const char *recursion) {
    Json object;
    if (problem.code != 0) {
        object.add_text("code", engine::code_text(problem.code));
    }
    object.add_text("reason", reason_text(problem, recursion));
    return object;
}

std::string amount_text(int64_t number, const char *one, const char *several) {
    return fmt::format("{} {}", number, number == 1 ? one : several);
}

void add_replaced(Json &entry, bool inPlace, const std::string &backup, int64_t oldNames,
                  const std::vector<std::string> &oldNamesKnown) {
    if (!backup.empty()) {
        entry.add_name("backup", backup);
    }
    if (inPlace) {
        entry.add_flag("in_place", true);
    }
    if (oldNames > 0) {
        entry.add_number("old_names", oldNames);
    }
    for (const std::string &name : oldNamesKnown) {
        Json known;
        known.add_name("path", name);
        entry.add_to_list("old_names_known", std::move(known));
    }
}

} // namespace tool
