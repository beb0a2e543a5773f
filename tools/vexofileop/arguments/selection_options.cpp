#include "tools/vexofileop/arguments/selection_options.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/vexofileop/arguments/input.h"
#include "tools/vexofileop/arguments/quantity.h"
#include "tools/vexofileop/arguments/usage_error.h"

#include <fmt/format.h>
#include <map>
#include <string>

namespace tool {
namespace {

constexpr uint64_t kMostRules = 64 << 20; // bytes of one file

std::string rules_in(const std::string &file) {
    try {
        return read_input(file, kMostRules);
    } catch (const engine::Failure &failure) {
        throw UsageError(failure.what());
    }
}

} // namespace

SelectionOptions::SelectionOptions(const Command &given)
    : m_command(given),
      m_exclude(given.rare().add_values("--exclude", "PATTERN", "leave out what is like it, as rsync")),
      m_include(given.rare().add_values("--include", "PATTERN", "of rules that fit an entry the first holds")),
      m_excludeFrom(given.rare().add_values("--exclude-from", "FILE", "a pattern to leave out in each line")),
      m_filterFile(given.rare().add_values("--filter-file", "FILE", "rules, \"- PATTERN\" or \"+ PATTERN\"")),
      m_minSize(given.rare().add_value("--min-size", "SIZE", "files of that size and larger: 10K, 1.5M, 2G")),
      m_maxSize(given.rare().add_value("--max-size", "SIZE", "files of that size and smaller")),
      m_newerThan(given.rare().add_value("--newer-than", "TIME", "files changed then or later: 7d, a date, ./FILE")),
      m_olderThan(given.rare().add_value("--older-than", "TIME", "files changed before that")),
      m_archiveBit(given.rare().add_flag("--archive-bit", "files that have the archive bit")),
      m_oneFileSystem(given.rare().add_flag("-x,--one-file-system", "nothing of volumes mounted in a tree")) {}

std::vector<Option> SelectionOptions::all() const {
    return {m_exclude, m_include,   m_excludeFrom, m_filterFile, m_minSize,
            m_maxSize, m_newerThan, m_olderThan,   m_archiveBit, m_oneFileSystem};
}

void SelectionOptions::add_rules(engine::Selection &selection) const {
    struct Adder {
        const Option &option;
        void (*add)(engine::Selection &, const std::string &);
    };
    const Adder adders[] = {
        {m_exclude, [](engine::Selection &to, const std::string &text) { to.exclude(text); }},
        {m_include, [](engine::Selection &to, const std::string &text) { to.include(text); }},
        {m_excludeFrom, [](engine::Selection &to, const std::string &file) { to.exclude_lines(rules_in(file)); }},
        {m_filterFile,
         [](engine::Selection &to, const std::string &file) {
             if (const auto wrong = to.add_rules(rules_in(file))) {
                 throw UsageError(fmt::format("{}: {}", engine::displayed(file), engine::displayed(*wrong)));
             }
         }},
    };
    size_t seen[std::size(adders)] = {};
    for (const Option &option : m_command.given_options()) {
        for (size_t at = 0; at < std::size(adders); ++at) {
            if (adders[at].option == option) {
                adders[at].add(selection, option.values().at(seen[at]++));
            }
        }
    }
}

engine::Selection SelectionOptions::chosen() const {
    engine::Selection selection;
    add_rules(selection);
    const auto size = [](const Option &option, const char *name, std::optional<int64_t> &into) {
        if (option.given()) {
            into = parse_size(name, option.values().front());
        }
    };
    size(m_minSize, "--min-size", selection.leastSize);
    size(m_maxSize, "--max-size", selection.mostSize);
    timespec now{};
    (void)::clock_gettime(CLOCK_REALTIME, &now);
    const auto moment = [&now](const Option &option, const char *name, std::optional<timespec> &into) {
        if (option.given()) {
            into = parse_moment(name, option.values().front(), now);
        }
    };
    moment(m_newerThan, "--newer-than", selection.notBefore);
    moment(m_olderThan, "--older-than", selection.before);
    selection.archivedAlone = m_archiveBit.given();
    selection.oneFileSystem = m_oneFileSystem.given();
    return selection;
}

} // namespace tool
