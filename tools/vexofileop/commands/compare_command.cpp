// vexofileop compare: what one file or tree lacks of another.
#include "tools/engine/compare/tree_comparison.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/select/tree_selection.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/errands.h"
#include "tools/vexofileop/arguments/jobs_option.h"
#include "tools/vexofileop/arguments/loss_classes.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/arguments/progress_option.h"
#include "tools/vexofileop/arguments/report_path.h"
#include "tools/vexofileop/arguments/selection_options.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/arguments/way_options.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/entry_text.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/output/loss_json.h"
#include "tools/vexofileop/output/progress_json.h"
#include "tools/vexofileop/output/receipt.h"
#include "tools/vexofileop/output/report.h"
#include "tools/vexofileop/terminal/console.h"
#include "tools/vexofileop/terminal/signals.h"
#include "tools/vexofileop/terminal/status_note.h"

#include <cerrno>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tool {
namespace {

// What is told beside the classes of losses, and goes by this name.
constexpr std::string_view kExtra = "extra";

enum { exitSame = 0, exitDifferent = 1, exitTrouble = 2 };

// Which differences count.
struct Wanted {
    engine::LossSet classes = {};
    bool extra = false;
    bool all = true; // nobody has named any

    bool has(engine::LossClass cls) const { return all || classes.contains(cls); }
    bool has_extra() const { return all || extra; }
};

struct CompareCommandOptions {
    engine::TreeComparisonOptions comparison;
    std::optional<std::vector<std::string>> names = {}; // below the two directories; nothing: these themselves
    Wanted only, ignored{.all = false};
    std::string report = {}; // the file that it is written to; empty: none
    bool quiet = false, json = false, noProgress = false, progressLines = false;
    int jobs = 0; // 0: the usual number
};

Wanted wanted_of(const Option &option, const char *name) {
    Wanted wanted{.all = false};
    for (const std::string &value : option.values()) {
        for (std::string_view rest = value;;) {
            const std::string one(rest.substr(0, rest.find(',')));
            wanted.extra = wanted.extra || one == kExtra || one == "all";
            if (one != kExtra) {
                wanted.classes.add(loss_set_of(one, name));
            }
            if (one == "all") { // which spares content where losses are accepted
                wanted.classes.add(engine::LossClass::data);
            }
            if (one.size() == rest.size()) {
                break;
            }
            rest.remove_prefix(one.size() + 1);
        }
    }
    return wanted;
}

class Comparison : private engine::ComparisonObserver {
  public:
    Comparison(const CompareCommandOptions &options, std::string first, std::string second)
        : m_options(options), m_first(std::move(first)), m_second(std::move(second)) {}

    int run() {
        engine::raise_descriptor_limit();
        m_report.begin(m_first, m_second);
        const bool bar = !m_options.noProgress && !m_options.json && Console::can_show_progress();
        if (bar || m_options.progressLines) {
            engine::TreeSelection selection(m_options.comparison.selection);
            const auto totals = engine::totals_of(
                m_first, [] { return stop_signal() != 0; }, selection.counted(m_first, m_options.comparison.named));
            const int64_t bytes = m_options.comparison.data ? totals.bytes : 0;
            if (m_options.progressLines) {
                m_console.start_progress_lines(bytes, totals.files, progress_text("compare", "compare"));
            } else {
                m_console.start_progress(bytes, totals.files);
            }
        }
        if (!m_options.names) {
            compare(m_first, m_second);
        } else {
            for (const std::string &name : *m_options.names) {
                if (stopped()) {
                    break;
                }
                compare_listed(engine::joined(m_first, name), engine::joined(m_second, name));
            }
            m_linked.finish([this](const std::string &first, const std::string &second, const engine::Loss &one) {
                loss(first, second, one);
            });
        }
        m_console.end_progress();
        return finish();
    }

  private:
    void compare_listed(const std::string &first, const std::string &second) {
        const auto there = engine::look(second);
        const int number = errno;
        if (!there && (number == ENOENT || number == ENOTDIR) && engine::look(first)) {
            loss(first, second, {engine::LossClass::data, "only at the first"});
            compared(first, engine::EntryKind::other, 0);
        } else {
            compare(first, second);
        }
    }
    // What cannot be looked at is told, and the rest is compared all the same.
    void compare(const std::string &first, const std::string &second) {
        try {
            const int jobs = m_options.jobs > 0 ? m_options.jobs : engine::usual_hands({first}, second);
            engine::TreeComparisonOptions comparison = m_options.comparison;
            comparison.names = m_options.names ? &m_linked : nullptr; // those of a list are one set
            engine::compare_trees(first, second, comparison, *this, hands_of(jobs));
        } catch (const engine::Failure &failure) {
            m_console.clear_progress();
            m_console.message(failure.what());
            m_trouble = true;
        }
    }
    bool stopped() const override { return stop_signal() != 0; }

    void loss(const std::string &first, const std::string &second, const engine::Loss &loss) override {
        if (stopped() && loss.cls == engine::LossClass::unreadable) {
            return; // what was being read when the stop came
        }
        const bool unreadable = loss.cls == engine::LossClass::unreadable;
        if (m_options.ignored.has(loss.cls) || (!m_options.only.has(loss.cls) && !unreadable)) {
            return;
        }
        (void)m_receipt.add(first, second, loss);
        if (!m_options.report.empty()) {
            m_report.loss(first, second, loss);
        }
        m_lastDifferent = first;
        m_different = m_different || !unreadable;
        m_trouble = m_trouble || unreadable;
        if (m_options.json) {
            m_console.line(loss_event(first, second, loss).line());
        } else if (!m_options.quiet) {
            m_console.line(loss_text(first, second, loss));
        }
    }

    void extra(const std::string &second, engine::EntryKind kind) override {
        if (!m_options.only.has_extra() || m_options.ignored.has_extra()) {
            return;
        }
        ++m_extra;
        m_different = true;
        if (!m_options.report.empty()) {
            m_report.problem("", second, "only at the second");
        }
        if (m_options.json) {
            Json event;
            event.add_text("event", "extra");
            event.add_text("kind", word_of(kind));
            event.add_name("destination", second);
            m_console.line(event.line());
        } else if (!m_options.quiet) {
            m_console.line(fmt::format("{}: only at the second ({})", engine::displayed(second), kExtra));
        }
    }

    void left_over(const std::string &path) override {
        if (m_options.json) {
            Json event;
            event.add_text("event", "left_over");
            event.add_name("path", path);
            event.add_number("count", 1);
            m_console.line(event.line());
        } else if (!m_options.quiet) {
            m_console.message(
                fmt::format("{}: left over from a command that was stopped; not compared", engine::displayed(path)));
        }
    }

    void same(const std::string &first, const std::string &second) override {
        ++m_same;
        if (m_files + m_directories > 0) {
            return; // somewhere in the trees, where that is nothing to tell
        }
        if (m_options.json) {
            Json event;
            event.add_text("event", "same");
            event.add_name("source", first);
            event.add_name("destination", second);
            m_console.line(event.line());
        } else if (!m_options.quiet) {
            m_console.line(fmt::format("{} -> {}: the same file", engine::displayed(first), engine::displayed(second)));
        }
    }

    void compared(const std::string &first, engine::EntryKind kind, int64_t bytes) override {
        note_path(first);
        m_report.count(m_lastDifferent == first ? Fate::different : Fate::same, 1, bytes);
        (kind == engine::EntryKind::directory ? m_directories : m_files) += 1;
        m_bytes += bytes;
        progress(0);
    }
    void progress(int64_t bytes) override {
        m_read += bytes;
        m_console.progress(m_read, m_files);
    }

    int finish() {
        int status = m_trouble ? exitTrouble : m_different ? exitDifferent : exitSame;
        if (stopped()) {
            m_console.message(fmt::format("stopped; {} compared", amount_text(m_files, "file", "files")));
            status = exitSignal + stop_signal();
        }
        if (!m_options.report.empty()) {
            try {
                m_report.write(m_options.report, status);
            } catch (const engine::Failure &failure) {
                m_console.message(failure.what());
                status = exitTrouble;
            }
        }
        if (m_options.json) {
            m_console.line(summary_line(status));
        }
        return m_console.check_output() || status != exitSame ? status : exitTrouble;
    }

    std::string summary_line(int status) const {
        Json summary;
        summary.add_text("event", "summary");
        summary.add_text("operation", "compare");
        summary.add_name("source", m_first);
        summary.add_name("destination", m_second);
        summary.add_number("files", m_files);
        summary.add_number("directories", m_directories);
        summary.add_number("bytes", m_bytes);
        summary.add_number("shared", m_same);
        summary.add_number("extra", m_extra);
        m_receipt.add_to(summary);
        summary.add_flag("cancelled", stopped());
        summary.add_number("exit_status", status);
        return summary.line();
    }

    const CompareCommandOptions &m_options;
    std::string m_first, m_second;
    Console m_console;
    Receipt m_receipt;
    Report m_report{"compare"};
    std::string m_lastDifferent = {};
    engine::LinkedNames m_linked = {};
    bool m_different = false, m_trouble = false;
    int64_t m_files = 0, m_directories = 0, m_bytes = 0, m_read = 0, m_extra = 0, m_same = 0;
};

// A slash at the end asks for what a link leads to.
std::string operand(const std::string &given) {
    const std::string path = engine::absolute_path(given);
    return (given.ends_with('/') || given.ends_with("/.")) && path != "/" ? path + "/" : path;
}

} // namespace

void add_compare_command(const Command &program, int &status) {
    const Command command = program.add_command("compare", "Tell what a file or tree lacks of another");
    const auto options = std::make_shared<CompareCommandOptions>();
    const auto metadataOnly = std::make_shared<bool>(false), noTimes = std::make_shared<bool>(false);
    command.add_flag("--metadata-only", *metadataOnly, "read no content; sizes are compared");
    command.add_flag("--no-times", *noTimes, "modification and creation times may differ");
    const Option only = command.add_values("--only", "CLASS,...", "these differences alone");
    const Option ignored = command.add_values("--ignore", "CLASS,...", "all but these");
    const Option names = add_names_option(command);
    command.add_flag("-q,--quiet", options->quiet, "no line for a difference; the status tells");
    command.add_flag("--json", options->json, "one JSON object per line: each difference, a summary");
    const Option report = add_report_option(command);
    const ProgressOption progress(command);
    add_jobs_option(command, options->jobs);
    const SelectionOptions selection(command);
    const PathOperands operands(command, "A", "A B");
    command.set_footer("\nTrees are compared with everything in them, whatever their volumes keep it in:\n"
                       "content, names as the second volume takes them, owners, permissions, ACLs,\n"
                       "times as exactly as the coarser volume keeps them, attributes, streams, Finder\n"
                       "Info, resource forks, links, holes. Classes are those of \"explain\", and \"extra\"\n"
                       "is what only B has. No link is followed but one given with a slash at its end.\n"
                       "Exit status: 0 the same, 1 different, 2 not all could be compared.\n"
                       "Example:\n"
                       "  vexofileop compare --ignore owner,group photos /volume2/backup/photos");
    command.set_work(
        [&status, options, metadataOnly, noTimes, only, ignored, names, report, progress, selection, operands] {
            options->noProgress = progress.wanted().none;
            options->progressLines = progress.wanted().lines;
            options->report = report_path_of(report);
            const std::vector<std::string> paths = operands.given();
            if (paths.size() != 2) {
                throw UsageError("give the two files or directories that are to be compared");
            }
            options->comparison = {.data = !*metadataOnly,
                                   .times = !*noTimes,
                                   .reversibleNames = are_names_reversible(names),
                                   .selection = selection.chosen(),
                                   .named = !names_contents(paths[0])};
            if (operands.has_list() && options->comparison.reversibleNames) {
                throw UsageError("a list has names as they are at both; with --names=reversible compare whole trees");
            }
            if (operands.has_list()) {
                options->names = plan_listed_errand(operands.listed(), paths[0], paths[1], true).below->names;
            }
            if (only.given()) {
                options->only = wanted_of(only, "--only");
            }
            options->ignored = wanted_of(ignored, "--ignore");
            status = Comparison(*options, operand(paths[0]), operand(paths[1])).run();
        });
}

} // namespace tool
