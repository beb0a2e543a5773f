#include "tools/vexofileop/commands/backup_run.h"

#include "platform/core.h"
#include "tools/engine/mirror/surplus.h"
#include "tools/engine/report/codes.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/json.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {
namespace {

bool has_bit(const std::string &path) {
    VLIBCStat status{};
    return VLIBCFileLStat(path.c_str(), VLIBC_STAT_ATTRIBUTES, &status) == 0 &&
           (status.attributes & VLIBC_ATTR_ARCHIVE) != 0;
}

// A name of the destination that was mistyped looks like that, too: without a word it would pass for a backup.
bool is_first(const BackupRunOptions &options, const engine::MirrorPair &pair) {
    return !options.full && !engine::holds_anything(pair.destination, {}).value_or(false) &&
           engine::holds_anything(pair.source, options.batch.transfer.selection).value_or(false);
}

std::string nothing_to_begin_with(const engine::MirrorPair &pair) {
    return fmt::format("{}: there is no backup yet, and nothing has the archive bit; --full brings everything",
                       engine::displayed(pair.destination));
}

} // namespace

std::string refusal_of_backup(const BackupRunOptions &options, const engine::MirrorPair &pair, std::string &note) {
    const engine::BackupGround ground =
        engine::ground_of_backup({.source = pair.source,
                                  .oneFileSystem = options.batch.transfer.selection.oneFileSystem,
                                  .full = options.full,
                                  .keepBits = options.keepBits});
    using Refusal = engine::BackupGround::Refusal;
    const std::string name = engine::displayed(ground.volume);
    if (!ground.without.empty()) {
        note = fmt::format("{}: its volume keeps no archive bits, and there are none to clear",
                           engine::displayed(ground.without));
    }
    switch (ground.refusal) {
    case Refusal::unknown:
        return fmt::format("{}: {}", name, ground.reason);
    case Refusal::no_bits:
        return fmt::format("{}: its volume keeps no archive bits, so that nothing tells what was changed there; "
                           "--full copies everything{}",
                           name, ground.volume == pair.source ? "" : ", -x leaves that volume out");
    case Refusal::read_only:
        return fmt::format("{}: is mounted read-only, so that no archive bit can be cleared; --keep-bits makes a "
                           "backup that clears none",
                           name);
    case Refusal::none:
        break;
    }
    return {};
}

int BackupRun::run() {
    engine::raise_descriptor_limit();
    std::string note;
    const std::string refusal = refusal_of_backup(m_backup, m_pair, note);
    if (!refusal.empty()) {
        m_console.message(refusal);
    }
    if (!refusal.empty() || !begin_list()) {
        m_failed = true;
        return finish(1);
    }
    if (!note.empty() && !m_options.quiet) {
        m_console.message(note);
    }
    m_firstOne = is_first(m_backup, m_pair);
    copy({{m_pair.source + "/.", m_pair.destination}});
    if (list_arrivals()) {
        clear_bits();
    } else {
        m_failed = true;
    }
    tell_first_one();
    tell_other_kinds();
    m_console.end_progress();
    return finish(1);
}

// Before anything is copied, so that a backup without a list is none.
bool BackupRun::begin_list() {
    try {
        m_book.emplace(engine::BackupTerms{.source = m_pair.source,
                                           .destination = m_pair.destination,
                                           .full = m_backup.full,
                                           .keepBits = m_backup.keepBits,
                                           .accepted = m_options.transfer.accepted,
                                           .sync = m_options.transfer.sync});
        return true;
    } catch (const engine::Failure &failure) {
        m_console.message(fmt::format("the list beside {}: {}", engine::displayed(m_pair.destination), failure.what()));
        return false;
    }
}

void BackupRun::entry(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) {
    Batch::entry(kind, source, outcome);
    m_failed = !m_book->note(kind, source, outcome) || m_failed;
    const uint32_t code = outcome.status == engine::Status::failed && outcome.problem ? outcome.problem->code : 0;
    if (m_otherKind.empty() && (code == engine::kNotADirectory || code == engine::kIsDirectory)) {
        m_otherKind = outcome.destination;
    }
}

void BackupRun::written_out(const std::string &directory, const std::optional<engine::Problem> &problem) {
    Batch::written_out(directory, problem);
    m_book->written_out(problem);
}

// The list comes first: of what has no bit any more it tells where it is.
bool BackupRun::list_arrivals() {
    const std::string refusal = m_book->put_in_place();
    if (!refusal.empty()) {
        m_console.message(refusal);
    }
    return refusal.empty();
}

void BackupRun::clear_bits() {
    m_console.start_phase("clear");
    try {
        m_book->clear_bits(*this);
    } catch (const engine::Failure &failure) {
        m_console.message(failure.what());
        m_failed = true;
    }
    tell_bits();
}

void BackupRun::tell_first_one() {
    if (!m_firstOne || stopped()) {
        return;
    }
    if (m_book->files() == 0) {
        m_console.message(nothing_to_begin_with(m_pair));
        m_failed = true;
    } else if (!m_options.quiet) {
        m_console.message(
            fmt::format("{}: there was no backup, and only what has the archive bit came; --full brings everything",
                        engine::displayed(m_pair.destination)));
    }
}

// A backup removes nothing: what stands there may be all that is left of it.
void BackupRun::tell_other_kinds() {
    if (!m_otherKind.empty()) {
        m_console.message(fmt::format("{} is kept, and in the way of what has its name now: move it to another name, "
                                      "and run the backup again",
                                      engine::displayed(m_otherKind)));
    }
}

void BackupRun::bit(const std::string &source, engine::BitFate fate, const std::string &why) {
    if (fate == engine::BitFate::cleared) {
        ++m_cleared;
        return;
    }
    const bool failed = fate == engine::BitFate::failed;
    if (failed) {
        m_failed = true;
        ++m_errors;
        m_report.problem(source, "", why);
    }
    const std::string text = fmt::format("{}: {}", engine::displayed(source), why);
    if (failed || m_options.verbose) {
        m_console.message(failed ? text : text + "; its archive bit stays");
    }
    if (m_options.json) {
        Json event;
        event.add_text("event", "archive_bit");
        event.add_text("operation", command());
        event.add_text("status", failed ? "failed" : "kept");
        event.add_name("source", source);
        event.add_text("reason", engine::as_utf8(why));
        m_console.line(event.line());
    }
    if (!failed && m_kept == 0) {
        m_firstKept = text;
    }
    ++(failed ? m_notCleared : m_kept);
}

// That a file is used is no failure: the next backup takes it again.
void BackupRun::tell_bits() {
    if (m_kept > 0 && !m_options.verbose && !m_options.quiet) {
        m_console.message(m_kept == 1 ? fmt::format("{}; its archive bit stays", m_firstKept)
                                      : fmt::format("{}; its archive bit and those of {} more stay (-v names them)",
                                                    m_firstKept, m_kept - 1));
    }
}

std::string BackupRun::listed() const {
    return m_book ? m_book->listed() : "";
}

std::string BackupRun::more_counts() const {
    return fmt::format(", {} archive {} cleared{}", m_cleared, m_cleared == 1 ? "bit" : "bits",
                       listed().empty() ? "" : fmt::format("; listed in {}", engine::displayed(listed())));
}

void BackupRun::add_more(Json &summary) const {
    summary.add_number("bits_cleared", m_cleared);
    summary.add_number("bits_kept", m_kept + m_notCleared);
    if (!listed().empty()) {
        summary.add_name("list", listed());
    }
}

int BackupPlan::run() {
    engine::raise_descriptor_limit();
    std::string note;
    std::string refusal = refusal_of_backup(m_backup, m_pair, note);
    const std::string beside = engine::parent_of(m_pair.destination);
    if (refusal.empty() && ::access(beside.c_str(), W_OK | X_OK) != 0) {
        refusal = fmt::format("the list beside {}: {}", engine::displayed(m_pair.destination), std::strerror(errno));
    }
    if (!refusal.empty()) {
        m_console.message(refusal);
        m_failed = m_anyFailed = true;
        return finish();
    }
    if (!note.empty()) {
        m_console.message(note);
    }
    plan({{m_pair.source + "/.", m_pair.destination}});
    if (m_going == 0 && is_first(m_backup, m_pair)) {
        m_console.message(nothing_to_begin_with(m_pair));
        m_failed = m_anyFailed = true;
    }
    return finish();
}

void BackupPlan::entry(const engine::PlannedEntry &planned) {
    PlanRun::entry(planned);
    const bool lost = std::ranges::any_of(planned.losses, [&](const engine::Loss &loss) {
        return engine::fails(loss, m_options.plan.transfer.accepted);
    });
    const bool skipped = planned.deed == engine::Deed::fail || planned.deed == engine::Deed::skip;
    const bool arrives = planned.deed != engine::Deed::fail && (planned.deed != engine::Deed::skip || planned.same);
    const auto found = engine::look(planned.source);
    m_going += !skipped && found && S_ISREG(found->st_mode) ? 1 : 0;
    if (m_backup.keepBits || lost || !arrives || !found || S_ISLNK(found->st_mode) || !has_bit(planned.source)) {
        return;
    }
    const bool several = !S_ISDIR(found->st_mode) && found->st_nlink > 1;
    m_bits += !several || ++m_names[{found->st_dev, found->st_ino}] == found->st_nlink ? 1 : 0;
}

std::string BackupPlan::more_counts() const {
    return fmt::format(", {} archive {} to clear, listed in {}.TIME.list", m_bits, m_bits == 1 ? "bit" : "bits",
                       engine::displayed(m_pair.destination));
}

void BackupPlan::add_more(Json &summary) const {
    summary.add_number("bits_to_clear", m_bits);
}

} // namespace tool
