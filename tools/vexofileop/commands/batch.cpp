#include "tools/vexofileop/commands/batch.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/select/tree_selection.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"
#include "tools/vexofileop/arguments/jobs_option.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/entry_text.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/output/loss_json.h"
#include "tools/vexofileop/output/progress_json.h"
#include "tools/vexofileop/terminal/progress_bar.h"
#include "tools/vexofileop/terminal/signals.h"
#include "tools/vexofileop/terminal/status_note.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace tool {
namespace {

std::string arrow(const std::string &source, const std::string &destination) {
    return engine::displayed(source) + " -> " + engine::displayed(destination);
}

int64_t size_of(const std::string &path) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode) ? found.st_size : 0;
}

// Of what stood there already nothing was, also where a move has removed its source.
int64_t carried(const engine::Outcome &outcome) {
    return outcome.status == engine::Status::done && !outcome.same ? outcome.bytes : 0;
}

// As far as the numbers of the volumes tell.
bool is_renamed(const Errand &errand) {
    const auto from = engine::look(errand.source), to = engine::look_through(engine::parent_of(errand.destination));
    return from && to && from->st_dev == to->st_dev;
}

// Nothing is said about an entry that arrives, and no failure keeps the rest from being copied.
engine::TransferOptions transfer_options(const BatchOptions &options) {
    engine::TransferOptions transfer = options.transfer;
    transfer.countsAlone =
        !options.eachEntry && !options.stopOnError && options.mostErrors == 0 && !options.verbose && !options.json;
    return transfer;
}

} // namespace

const char *word_of(engine::Operation operation) {
    return operation == engine::Operation::copy ? "copy" : "move";
}

engine::NamesBelow names_below(const RelativeNames &names, const engine::TransferOptions &transfer) {
    return {.followed = names.followed,
            .trees = transfer.trees && !names.alone,
            .alone = names.alone,
            .unfinished = names.unfinished,
            .directoriesAlone = names.directoriesAlone};
}

Batch::Batch(const BatchOptions &options)
    : m_options(options), m_transfer(transfer_options(options), *this), m_receipt(options.transfer.accepted),
      m_report(command(), options.transfer.accepted) {}

int Batch::run(const std::vector<Errand> &errands) {
    copy(errands);
    return finish(number_of(errands));
}

void Batch::copy(const std::vector<Errand> &errands) {
    begin(errands);
    m_transfer.share(hands_of(jobs_for(errands)));
    for (const Errand &errand : errands) {
        if (stopped()) {
            break;
        }
        m_report.begin(errand.source, errand.destination);
        if (errand.below) {
            run_below(errand);
        } else {
            m_transfer.run(errand.source, errand.destination);
        }
    }
    m_transfer.leave();
    if (stopped()) { // what was counted as behind, so that the line could get to its end, was not all done
        m_console.progress(m_behind - m_bytesUndone, m_filesBehind - m_filesUndone);
    }
    m_console.end_progress();
}

// What a move renames is done before anybody has come to help.
int Batch::jobs_for(const std::vector<Errand> &errands) const {
    if (m_options.jobs > 0 || !m_transfer.can_share() || errands.empty()) {
        return std::max(m_options.jobs, 1);
    }
    std::vector<std::string> trees;
    for (const Errand &errand : errands) {
        if (!errand.below && m_transfer.is_tree(errand.source) && (copies() || !is_renamed(errand))) {
            trees.push_back(errand.source);
        }
    }
    return engine::usual_hands(trees, errands.front().destination);
}

void Batch::run_below(const Errand &errand) {
    const engine::NamesBelow how = names_below(*errand.below, m_options.transfer);
    m_below = true;
    m_directoriesAlone = how.directoriesAlone;
    for (const std::string &name : errand.below->names) {
        if (stopped()) {
            return;
        }
        m_transfer.run_below(errand.source, errand.destination, name, how);
    }
}

const char *Batch::command() const {
    return m_options.command != nullptr ? m_options.command : word_of(m_options.transfer.operation);
}

bool Batch::stopped() const {
    return stop_signal() != 0 || (m_options.stopOnError && m_failed) ||
           (m_options.mostErrors > 0 && m_errors >= m_options.mostErrors);
}

// A tree is counted before it is copied only where somebody sees it.
void Batch::begin(const std::vector<Errand> &errands) {
    const bool bar = !m_options.noProgress && !m_options.quiet && !m_options.json && Console::can_show_progress();
    if (!bar && !m_options.progressLines) {
        return;
    }
    engine::Totals totals;
    engine::TreeSelection selection(m_options.transfer.selection);
    const auto add = [&](const std::string &source, bool alone) {
        if (!alone && m_transfer.is_tree(source)) {
            const bool named = !source.ends_with("/.");
            const std::string top = source.substr(0, source.size() - (named ? 0 : 2));
            totals += engine::totals_of(
                top, [] { return stop_signal() != 0; }, selection.counted(top, named));
        } else {
            totals += {1, size_of(source)};
        }
    };
    for (const Errand &errand : errands) {
        if (!errand.below) {
            add(errand.source, false);
            continue;
        }
        for (const std::string &name : errand.below->names) {
            add(engine::joined(errand.source, name), errand.below->alone);
        }
    }
    if (m_options.progressLines) {
        m_console.start_progress_lines(totals.bytes, totals.files,
                                       progress_text(command(), word_of(m_options.transfer.operation)));
    } else {
        m_console.start_progress(totals.bytes, totals.files > 1 ? totals.files : 0);
    }
}

void Batch::begins(const std::string &source) {
    note_path(source);
}

void Batch::tree(const std::string &) {
    m_treeSeen = true;
}

void Batch::entry(engine::EntryKind kind, const std::string &source, const engine::Outcome &told) {
    engine::Outcome outcome = told;
    if (outcome.problem) {
        engine::name_what_is_full(*outcome.problem, outcome.destination);
    }
    Counts &counts = kind == engine::EntryKind::directory ? m_directories : m_entries;
    if (stays_on_the_way(kind, source, outcome)) {
        ++m_onTheWay;
    } else {
        ++counts[outcome.status];
    }
    m_keptSources += outcome.sourceStays ? 1 : 0;
    if (outcome.sourceStays && outcome.status == engine::Status::done) {
        ++(kind == engine::EntryKind::directory ? m_keptDirectories : m_keptFiles);
    }
    m_cloned += outcome.cloned ? 1 : 0;
    m_backups += outcome.backup.empty() ? 0 : 1;
    m_same += outcome.same ? 1 : 0;
    m_inPlace += outcome.inPlace ? 1 : 0;
    if (outcome.oldNames > 0) {
        m_oldNamed[outcome.old] = outcome;
    } else {
        m_oldNamed.erase(outcome.old);
    }
    const bool failed = outcome.status == engine::Status::failed || outcome.warning;
    m_failed = m_failed || failed;
    m_errors += failed || engine::has_failing_loss(outcome, m_options.transfer.accepted) ? 1 : 0;
    if (kind != engine::EntryKind::directory) {
        // Also what was cloned, skipped or failed is behind us.
        m_copied += carried(outcome);
        const int64_t size = outcome.status == engine::Status::done ? outcome.bytes
                             : kind == engine::EntryKind::file      ? size_of(source)
                                                                    : 0;
        const bool undone = outcome.status == engine::Status::failed || outcome.status == engine::Status::cancelled;
        m_behind += size;
        m_bytesUndone += undone ? size : 0;
        ++m_filesBehind;
        m_filesUndone += undone ? 1 : 0;
        m_bytes = std::max(m_bytes, m_behind);
    }
    report(kind, source, outcome);
    report_losses(source, outcome);
    note_for_report(kind, source, outcome);
    advance(0);
}

// Made anew for what is moved below it, and not moved itself.
bool Batch::stays_on_the_way(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) const {
    return m_below && !copies() && kind == engine::EntryKind::directory && outcome.status == engine::Status::done &&
           !outcome.sourceStays && engine::exists(source);
}

// So many files and links of which nothing is to be said.
void Batch::arrived(const std::string &, int files, int64_t bytes) {
    m_report.count(copies() ? Fate::copied : Fate::moved, files, bytes);
    m_entries[engine::Status::done] += files;
    m_copied += bytes;
    m_behind += bytes;
    m_filesBehind += files;
    m_bytes = std::max(m_bytes, m_behind);
    advance(0);
}

void Batch::report(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) {
    report_problems(source, outcome);
    if (m_options.json) {
        m_console.line(entry_line(kind, source, outcome));
    } else if (m_options.verbose) {
        verbose_line(source, outcome);
    }
}

void Batch::report_problems(const std::string &source, const engine::Outcome &outcome) {
    if (outcome.status == engine::Status::done && !outcome.problem && !outcome.warning) {
        return;
    }
    const std::string both = arrow(source, outcome.destination);
    // Of what was skipped for a loss the receipt tells.
    const bool counted = outcome.status == engine::Status::skipped && !outcome.losses.empty();
    if (outcome.problem && !counted) {
        m_console.message(problem_text(outcome.problem->withSource ? engine::displayed(source) : both, *outcome.problem,
                                       kCopyRecursion));
    } else if (outcome.status == engine::Status::skipped && !counted && !outcome.same && m_treeSeen) {
        ++m_passedOver;
    }
    if (outcome.warning) {
        m_console.message(problem_text(both, *outcome.warning));
    }
}

void Batch::loss(const std::string &source, const std::string &destination, const engine::Loss &loss) {
    tell_loss(source, destination, loss, false);
    if (!m_options.report.empty()) {
        m_report.loss(source, destination, loss);
    }
}

// `told`: as the failure of its entry.
void Batch::tell_loss(const std::string &source, const std::string &destination, const engine::Loss &loss, bool told) {
    m_failed = m_receipt.add(source, destination, loss, told) || m_failed;
    if (m_options.json) {
        m_console.line(loss_event(source, destination, loss).line());
    } else if (m_options.verbose && !told) {
        m_console.line(loss_text(source, destination, loss));
    }
}

void Batch::report_losses(const std::string &source, const engine::Outcome &outcome) {
    const bool told = outcome.status == engine::Status::failed && outcome.problem;
    for (const engine::Loss &loss : outcome.losses) {
        tell_loss(source, outcome.destination, loss, told);
    }
    const bool unmade = !copies() && outcome.status == engine::Status::skipped &&
                        engine::has_failing_loss(outcome, m_options.transfer.accepted);
    m_unmade += unmade ? 1 : 0;
    // A directory may stay for what is in it.
    const bool stays =
        outcome.sourceStays && !outcome.warning && engine::keeps_source(outcome, m_options.transfer.accepted);
    if (stays || unmade) {
        ++m_staying;
        for (const engine::Loss &loss : outcome.losses) {
            m_stayingFor.add(loss.cls);
        }
    }
}

void Batch::note_for_report(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) {
    if (m_options.report.empty()) {
        return;
    }
    const Fate fate = outcome.same                                ? Fate::same
                      : outcome.status == engine::Status::skipped ? Fate::skipped
                      : outcome.status != engine::Status::done    ? Fate::failed
                      : outcome.cloned                            ? Fate::cloned
                      : copies() || outcome.sourceStays           ? Fate::copied
                                                                  : Fate::moved;
    if (kind != engine::EntryKind::directory || fate == Fate::failed) {
        m_report.count(fate, 1, carried(outcome));
    }
    if (outcome.status == engine::Status::done) {
        m_report.replaced(source, outcome);
    }
    for (const auto &told : {outcome.problem, outcome.warning}) {
        if (told && (outcome.status != engine::Status::skipped || outcome.losses.empty())) {
            m_report.problem(source, outcome.destination, told->reason);
        }
    }
    for (const engine::Loss &loss : outcome.losses) {
        m_report.loss(source, outcome.destination, loss);
    }
}

bool Batch::write_report(int status) {
    if (m_options.report.empty()) {
        return true;
    }
    try {
        m_report.write(m_options.report, status);
        return true;
    } catch (const engine::Failure &failure) {
        m_console.message(failure.what());
        return false;
    }
}

void Batch::tell_receipt() {
    for (const std::string &line : m_receipt.lines()) {
        m_console.message(line);
    }
    tell_old_names();
    if (m_staying > 0) {
        const std::string classes = m_receipt.failing(m_stayingFor);
        const bool specials =
            m_unmade > 0 && !m_options.transfer.specials && m_stayingFor.contains(engine::LossClass::special_file);
        m_console.message(
            (m_staying == 1 ? "the source stays for that" : fmt::format("{} sources stay for that", m_staying)) +
            (classes.empty() ? ""
                             : fmt::format("; --accept {} {}", classes,
                                           m_unmade > 0     ? "moves all but what was not made there"
                                           : m_staying == 1 ? "moves it"
                                                            : "moves them")) +
            (specials ? "; --specials makes pipes, devices and sockets" : ""));
    }
}

// Nobody who replaces a file thinks of its other names.
void Batch::tell_old_names() {
    if (m_inPlace > 0) {
        // Nobody has asked for it where nothing else could be done.
        const char *const why = m_options.transfer.inPlace ? ""
                                : m_inPlace == 1           ? ", since nothing can be made in its directory"
                                                           : ", since nothing can be made in their directories";
        m_console.message(fmt::format("{} written in place{}", amount_text(m_inPlace, "file", "files"), why));
    }
    if (m_oldNamed.empty()) {
        return;
    }
    const engine::Outcome &first = m_oldNamed.begin()->second;
    std::string known;
    for (const std::string &name : first.oldNamesKnown) {
        known += (known.empty() ? ": " : ", ") + engine::displayed(name);
    }
    const int64_t names = first.oldNames;
    // Which keeps no backup of what it writes into.
    const char *const advice = m_options.transfer.backup.wanted ? "" : "; --in-place changes them all";
    m_console.message(fmt::format(
        "{}: {} of the file that was replaced {} its content{}{}{}", engine::displayed(first.destination),
        names == 1 ? "another name" : fmt::format("{} other names", names), names == 1 ? "keeps" : "keep", known,
        m_oldNamed.size() > 1 ? fmt::format("; and so for {} more", m_oldNamed.size() - 1) : "", advice));
}

void Batch::verbose_line(const std::string &source, const engine::Outcome &outcome) {
    if (outcome.status == engine::Status::done && outcome.same) {
        m_console.line(arrow(source, outcome.destination) + " (the same already; the source was removed)");
    } else if (outcome.status == engine::Status::done) {
        const std::string backup =
            outcome.backup.empty() ? "" : fmt::format(" (backup: {})", engine::displayed(outcome.backup));
        m_console.line(arrow(source, outcome.destination) + backup +
                       (outcome.cloned   ? " (cloned)"
                        : outcome.linked ? " (linked)"
                                         : "") +
                       (outcome.inPlace ? " (in place)" : "") +
                       (outcome.oldNames > 0
                            ? fmt::format(" (other names that keep the old content: {})", outcome.oldNames)
                            : "") +
                       (outcome.sourceStays ? " (stays at the source)" : ""));
    } else if (outcome.status == engine::Status::skipped && !outcome.problem) {
        m_console.line(arrow(source, outcome.destination) +
                       (outcome.same ? " (the same already)" : " (skipped, destination exists)"));
    }
}

std::string Batch::entry_line(engine::EntryKind kind, const std::string &source, const engine::Outcome &outcome) const {
    Json entry;
    entry.add_text("event", word_of(kind));
    entry.add_text("operation", word_of(m_options.transfer.operation));
    entry.add_text("status", word_of(outcome.status));
    entry.add_name("source", source);
    entry.add_name("destination", outcome.destination);
    if (outcome.status == engine::Status::done && kind == engine::EntryKind::file) {
        entry.add_number("bytes", carried(outcome));
    }
    if (kind == engine::EntryKind::file && (outcome.cloned || m_options.transfer.clone == engine::Clone::always)) {
        entry.add_flag("cloned", outcome.cloned);
    }
    if (outcome.synced) {
        entry.add_flag("synced", true);
    }
    if (outcome.same) {
        entry.add_flag("same", true);
    }
    if (outcome.linked) {
        entry.add_flag("linked", true);
    }
    add_replaced(entry, outcome.inPlace, outcome.backup, outcome.oldNames, outcome.oldNamesKnown);
    if (outcome.problem) {
        entry.add_object("error", problem_object(*outcome.problem, kCopyRecursion));
    }
    if (outcome.warning) {
        entry.add_to_list("warnings", problem_object(*outcome.warning));
    }
    if (outcome.sourceStays) {
        entry.add_flag("source_kept", true);
    }
    return entry.line();
}

int Batch::finish(size_t planned) {
    int succeeded = m_entries[engine::Status::done] + m_entries[engine::Status::skipped];
    if (m_directoriesAlone || (succeeded == 0 && m_entries[engine::Status::failed] == 0)) {
        succeeded = m_directories[engine::Status::done]; // a tree of directories, or one moved as a whole
    }
    // What a stop left undone is told by its own status.
    int status = stop_signal() != 0 ? exitSignal + stop_signal() : exit_status(succeeded, m_failed ? 1 : 0);
    tell_stop(planned);
    if (!m_options.json) {
        tell_receipt();
    }
    if (!write_report(status) && status == exitAll) {
        status = exitSome;
    }
    if (m_options.json) {
        m_console.line(summary_line(planned, status));
    } else if (m_treeSeen && !m_options.quiet) {
        tell_passed_over();
        m_console.line(counts_line());
    }
    if (m_console.is_unanswered() && status == exitAll) {
        status = exitSome;
    }
    if (!m_console.check_output() && status == exitAll) {
        status = exitSome;
    }
    return status;
}

// One line, however many they are: each has one with -v.
void Batch::tell_passed_over() {
    if (m_passedOver > 0 && !m_options.verbose) {
        m_console.message(fmt::format("{} skipped, for the destination exists; -v names {}", m_passedOver,
                                      m_passedOver == 1 ? "it" : "them"));
    }
}

void Batch::tell_stop(size_t planned) {
    const char *const verb = copies() ? "copied" : "moved";
    if (stop_signal() == 0) {
        if (stopped()) {
            m_console.message(m_options.stopOnError ? "stopped at the first failure (--stop-on-error)"
                                                    : fmt::format("stopped after {} (--max-errors)",
                                                                  amount_text(m_errors, "failure", "failures")));
        }
    } else if (m_treeSeen) {
        m_console.message(
            fmt::format("stopped; {} {}", amount_text(m_entries[engine::Status::done], "file", "files"), verb));
    } else {
        m_console.message(fmt::format("stopped; {} of {} {}", m_entries[engine::Status::done],
                                      amount_text(static_cast<int64_t>(planned), "file", "files"), verb));
    }
}

std::string Batch::counts_line() const {
    const std::string same = updates() || m_same > 0 ? fmt::format(" ({} the same)", m_same) : "";
    const std::string backups = m_options.transfer.backup.wanted ? fmt::format(", {} backed up", m_backups) : "";
    return fmt::format("{} and {} {} ({}), {} skipped{}, {} failed{}{}",
                       amount_text(m_entries[engine::Status::done] - m_keptFiles, "file", "files"),
                       amount_text(m_directories[engine::Status::done] - m_keptDirectories, "directory", "directories"),
                       copies() ? "copied" : "moved", size_text(m_copied), m_entries[engine::Status::skipped], same,
                       m_entries[engine::Status::failed] + m_directories[engine::Status::failed],
                       copies() || m_cloned > 0 ? fmt::format(", {} cloned", m_cloned) : "", backups) +
           (m_onTheWay > 0 ? fmt::format(", {} on the way", amount_text(m_onTheWay, "directory", "directories")) : "") +
           (m_keptSources > 0
                ? fmt::format(", {} of the sources {}", m_keptSources, m_keptSources == 1 ? "stays" : "stay")
                : "") +
           more_counts();
}

std::string Batch::summary_line(size_t planned, int status) const {
    Json summary;
    summary.add_text("event", "summary");
    summary.add_text("operation", command());
    summary.add_number("files", m_treeSeen ? m_filesBehind : static_cast<int64_t>(planned));
    summary.add_number("directories", m_directories[engine::Status::done]);
    summary.add_number("done", m_entries[engine::Status::done]);
    summary.add_number("skipped", m_entries[engine::Status::skipped]);
    if (updates() || m_same > 0) {
        summary.add_number("same", m_same);
    }
    if (m_onTheWay > 0) {
        summary.add_number("on_the_way", m_onTheWay);
    }
    summary.add_number("failed", m_entries[engine::Status::failed] + m_directories[engine::Status::failed]);
    summary.add_number("cloned", m_cloned);
    if (m_options.transfer.backup.wanted) {
        summary.add_number("backups", m_backups);
    }
    summary.add_number("bytes", m_copied);
    if (!copies()) {
        summary.add_number("sources_kept", m_keptSources);
    }
    add_more(summary);
    m_receipt.add_to(summary);
    if (stopped()) {
        summary.add_text("stopped_by", stop_signal() != 0      ? "signal"
                                       : m_options.stopOnError ? "stop-on-error"
                                                               : "max-errors");
    }
    summary.add_flag("cancelled", stop_signal() != 0);
    summary.add_number("exit_status", status);
    return summary.line();
}

void Batch::stays(const std::string &directory, const std::vector<std::string> &names) {
    const std::string first = engine::joined(directory, names.front());
    if (m_options.json) {
        Json line;
        line.add_text("event", "left_over");
        line.add_name("path", first);
        line.add_number("count", static_cast<int64_t>(names.size()));
        m_console.line(line.line());
        return;
    }
    // Of one whose maker is proven to be gone it is not proven that it has made this.
    const auto tell = [&](bool over, const char *words) {
        const auto is_such = [&](const std::string &name) { return engine::is_left_over(name) == over; };
        const auto shown = std::ranges::find_if(names, is_such);
        if (const auto count = std::ranges::count_if(names, is_such); shown != names.end()) {
            m_console.message(fmt::format("{}{}: {}", engine::displayed(engine::joined(directory, *shown)),
                                          count > 1 ? fmt::format(" and {} more like it", count - 1) : "", words));
        }
    };
    tell(false, "left by a command of another machine or container, or of an earlier start, which may not be over; "
                "stays, and can be removed if it is");
    tell(true, "has the name of what a stopped command leaves, but may be somebody's own; stays, and can be removed "
               "if it is not");
}

void Batch::advance(int64_t bytes) {
    m_bytes += bytes;
    m_console.progress(m_bytes, std::max(m_filesBehind, m_filesBegun));
}

void Batch::progress(int64_t bytes, bool newFile) {
    m_filesBegun = newFile ? std::max(m_filesBehind, m_filesBegun) + 1 : m_filesBegun;
    advance(bytes);
}

void Batch::retry(const engine::Retry &retry) {
    if (m_options.json) {
        Json event;
        event.add_text("event", "retry");
        event.add_text("operation", word_of(m_options.transfer.operation));
        event.add_name("source", retry.source);
        event.add_name("destination", retry.destination);
        event.add_number("retry", retry.number);
        event.add_number("of", retry.of);
        event.add_number("pause_ms", retry.pause);
        event.add_object("error", problem_object(retry.problem));
        m_console.line(event.line());
    } else if (m_options.verbose) {
        m_console.line(fmt::format("{}; retry {} of {} in {} ms",
                                   problem_text(arrow(retry.source, retry.destination), retry.problem), retry.number,
                                   retry.of, retry.pause));
    }
}

// A phase of its own: it may take long, and nothing is copied meanwhile.
void Batch::writing_out(const std::string &directory) {
    m_console.clear_progress();
    m_console.start_phase("sync");
    if (m_options.json) {
        tell_write_out(directory, "begun", nullptr);
    } else if (m_options.verbose || (Console::can_show_progress() && !m_options.quiet && !m_options.noProgress)) {
        m_console.message(fmt::format("writing out the volume of {}", engine::displayed(directory)));
    }
}

void Batch::written_out(const std::string &directory, const std::optional<engine::Problem> &problem) {
    if (problem) {
        m_failed = true;
        ++m_errors;
        m_console.message(problem_text(fmt::format("the volume of {}", engine::displayed(directory)), *problem));
        m_report.problem("", directory, problem->reason);
    }
    if (m_options.json) {
        tell_write_out(directory, problem ? "failed" : "done", problem ? &*problem : nullptr);
    }
}

void Batch::tell_write_out(const std::string &directory, const char *status, const engine::Problem *problem) {
    Json event;
    event.add_text("event", "sync");
    event.add_text("operation", word_of(m_options.transfer.operation));
    event.add_text("status", status);
    event.add_name("directory", directory);
    if (problem != nullptr) {
        event.add_object("error", problem_object(*problem));
    }
    m_console.line(event.line());
}

bool Batch::may_replace(const std::string &path) {
    return m_console.confirm(fmt::format("replace {}?", engine::displayed(path)));
}

} // namespace tool
