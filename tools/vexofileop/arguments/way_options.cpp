#include "tools/vexofileop/arguments/way_options.h"

#include "tools/engine/report/names.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/quantity.h"
#include "tools/vexofileop/arguments/usage_error.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <fmt/format.h>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace tool {
namespace {

constexpr char kSuffix[] = "~";

// Relative ones stay that.
std::string backup_directory(const std::string &given) {
    if (given.empty()) {
        throw UsageError("--backup-dir: an empty path was given");
    }
    return given.front() == '/' ? engine::absolute_path(given) : given;
}

// The value of an option that has one of some words.
template <typename Value>
Value one_of(const Option &option, const char *name, std::initializer_list<std::pair<std::string_view, Value>> words) {
    const std::string given = option.values().back();
    std::string known;
    for (const auto &[word, value] : words) {
        if (word == given) {
            return value;
        }
        known += (known.empty() ? "" : ", ") + std::string(word);
    }
    throw UsageError(fmt::format("{}={}: is none of {}", name, engine::displayed(given), known));
}

} // namespace

void add_dry_no_probe(const Command &command, bool &noProbe) {
    command.rare().add_flag("--no-probe", noProbe, "with --dry-run: make nothing at the destination");
}

void refuse_no_probe(bool noProbe, bool dryRun) {
    if (noProbe && !dryRun) {
        throw UsageError("--no-probe says how --dry-run finds out, and needs it");
    }
}

Option add_names_option(const Command &command) {
    return command.rare().add_value("--names", "HOW", "reversible: names that FAT changes come back; or plain");
}

bool are_names_reversible(const Option &option) {
    return option.given() && one_of<bool>(option, "--names", {{"reversible", true}, {"plain", false}});
}

WayOptions::WayOptions(const Command &command)
    : m_clone(command.rare().add_word("--clone", "always", "WHEN", "share data where it can be: auto, always, never")),
      m_rate(command.rare().add_value("--bwlimit", "RATE", "write no more a second: 500 (KiB), 1.5M; 0: any")),
      m_retries(command.rare().add_value("--retry", "N", "try again so often what fails for what may pass")),
      m_sync(command.rare().add_word("--sync", "file", "HOW", "have it on disk at the end: by file, or by volume")),
      m_backup(command.rare().add_word("--backup", kSuffix, "SUFFIX",
                                       "keep what is replaced or goes, as NAME~ or NAME and SUFFIX")),
      m_backupDirectory(
          command.rare().add_value("--backup-dir", "DIR", "keep it below DIR, which is in DEST where relative")),
      m_names(add_names_option(command)) {}

void WayOptions::apply(engine::TransferOptions &transfer) const {
    using engine::Clone;
    transfer.clone =
        !m_clone.given()
            ? Clone::automatic
            : one_of<Clone>(m_clone, "--clone",
                            {{"auto", Clone::automatic}, {"always", Clone::always}, {"never", Clone::never}});
    transfer.backup.wanted = m_backup.given() || m_backupDirectory.given();
    transfer.backup.suffix = m_backup.given() ? m_backup.values().back() : "";
    if (transfer.backup.suffix.find('/') != std::string::npos) {
        throw UsageError("--backup: the suffix of a name has no slash");
    }
    if (m_backupDirectory.given()) {
        transfer.backup.directory = backup_directory(m_backupDirectory.values().front());
        // Below a directory of their own names stay what they are.
        transfer.backup.suffix = transfer.backup.suffix == kSuffix ? "" : transfer.backup.suffix;
    }
    transfer.sync =
        !m_sync.given()
            ? engine::Sync::none
            : one_of<engine::Sync>(m_sync, "--sync", {{"file", engine::Sync::file}, {"volume", engine::Sync::volume}});
    transfer.retries =
        m_retries.given()
            ? static_cast<int>(std::min<int64_t>(parse_count("--retry", m_retries.values().front(), 0), INT_MAX))
            : 0;
    transfer.reversibleNames = are_names_reversible(m_names);
    if (transfer.reversibleNames && transfer.conflict == engine::Conflict::keep_both) {
        throw UsageError("--keep-both gives names of its own, which --names=reversible could not bring back");
    }
    transfer.bytesPerSecond = m_rate.given() ? parse_rate("--bwlimit", m_rate.values().front()) : 0;
}

} // namespace tool
