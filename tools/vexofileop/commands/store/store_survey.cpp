// vexofileop store check, store repair.
#include "tools/engine/stores/store_survey.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/arguments/report_path.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/commands/store/store_commands.h"
#include "tools/vexofileop/commands/store/store_telling.h"
#include "tools/vexofileop/commands/store/store_undo_run.h"
#include "tools/vexofileop/output/entry_text.h"
#include "tools/vexofileop/output/finding_json.h"
#include "tools/vexofileop/output/report.h"
#include "tools/vexofileop/terminal/console.h"
#include "tools/vexofileop/terminal/signals.h"
#include "tools/vexofileop/terminal/status_note.h"

#include <cstdint>
#include <ctime>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <unistd.h>

namespace tool {
namespace {

struct SurveyRunOptions {
    engine::SurveyOptions survey;
    bool repair = false, json = false, quiet = false;
    std::string quarantine = {}, report = {};
};

class SurveyRun : private engine::SurveyWatcher {
  public:
    explicit SurveyRun(const SurveyRunOptions &options)
        : m_options(options), m_command(options.repair ? "store repair" : "store check"), m_report(m_command) {
        if (options.repair) {
            m_quarantine.emplace(options.quarantine);
            m_mender.emplace(*m_quarantine);
        }
    }

    int run(const std::vector<std::string> &paths) {
        for_each_path(
            paths,
            [this](const engine::HeldEntry &entry) {
                engine::survey_stores(entry, m_options.survey, m_mender ? &*m_mender : nullptr,
                                      m_quarantine ? &*m_quarantine : nullptr, *this, m_totals);
            },
            [this](const std::string &path, const std::string &reason) { trouble(path, reason); });
        return finish();
    }

  private:
    bool stopped() const override { return stop_signal() != 0; }

    void found(const engine::Finding &finding) override {
        note_path(finding.place);
        ++m_found;
        m_mended += finding.state == engine::Finding::State::mended ? 1 : 0;
        if (!m_options.report.empty()) {
            m_report.finding(finding);
        }
        if (m_options.json) {
            m_console.line(finding_event(m_command, finding).line());
        } else if (!m_options.quiet) {
            m_console.line(text_of_finding(finding));
        }
    }

    static std::string text_of_finding(const engine::Finding &finding) {
        std::string what;
        if (finding.state == engine::Finding::State::mended) {
            what = "; " + finding.remedy;
        } else if (finding.state == engine::Finding::State::found) {
            what = finding.remedy.empty() ? "" : "; a repair: " + finding.remedy;
        } else {
            what = finding.reason.empty() ? "; left" : "; left: " + finding.reason;
        }
        return fmt::format("{}: {}{} ({})", engine::displayed(finding.place), finding.detail, what,
                           engine::finding_row(finding.kind).name);
    }

    void trouble(const std::string &path, const std::string &reason) override {
        ++m_troubles;
        m_report.problem(path, "", reason);
        tell_trouble(m_console, m_command, path, reason, m_options.json);
    }

    int finish() {
        int status = (m_mended > 0 ? exitStoreMended : 0) | (m_found > m_mended ? exitStoreLeft : 0) |
                     (m_troubles > 0 ? exitStoreTrouble : 0);
        if (stopped()) {
            m_console.message(fmt::format("stopped; {} looked into", amount_text(m_totals.stores, "store", "stores")));
            status = exitSignal + stop_signal();
        }
        status = write_store_report(m_console, m_report, m_options.report, status);
        if (m_options.json) {
            m_console.line(summary_line(status));
        } else if (!m_options.quiet) {
            m_console.line(totals_line());
        }
        if (m_quarantine && m_quarantine->is_used()) {
            const std::string directory = engine::displayed(m_quarantine->path());
            m_console.message(fmt::format("the originals are in {}; \"vexofileop store repair --undo {}\" puts them "
                                          "back",
                                          directory, directory));
        }
        return m_console.check_output() ? status : status | exitStoreTrouble;
    }

    std::string totals_line() const {
        std::string text = fmt::format("{} in {}: {}", amount_text(m_totals.stores, "store", "stores"),
                                       amount_text(m_totals.directories, "directory", "directories"),
                                       amount_text(m_found, "finding", "findings"));
        return m_options.repair ? text + fmt::format(", {} mended, {} left", m_mended, m_found - m_mended) : text;
    }

    std::string summary_line(int status) const {
        Json summary;
        summary.add_text("event", "summary");
        summary.add_text("operation", m_command);
        summary.add_number("directories", m_totals.directories);
        summary.add_number("stores", m_totals.stores);
        summary.add_number("found", m_found);
        summary.add_number("mended", m_mended);
        summary.add_number("troubles", m_troubles);
        if (m_quarantine && m_quarantine->is_used()) {
            summary.add_name("quarantine", m_quarantine->path());
        }
        summary.add_flag("cancelled", stopped());
        summary.add_number("exit_status", status);
        return summary.line();
    }

    const SurveyRunOptions &m_options;
    std::string m_command;
    Console m_console;
    Report m_report;
    std::optional<engine::Quarantine> m_quarantine;
    std::optional<engine::StoreMender> m_mender;
    engine::SurveyTotals m_totals;
    int64_t m_found = 0, m_mended = 0, m_troubles = 0;
};

// In the working directory, by the time and the process.
std::string usual_quarantine() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    char text[32] = "";
    ::gmtime_r(&now, &parts);
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
    return engine::absolute_path(fmt::format("vexofileop-quarantine-{}-{}", text, ::getpid()));
}

void add_survey_options(const Command &command, SurveyRunOptions &options) {
    command.add_flag("-r,--recursive", options.survey.recursive, "every directory of a tree");
    command.add_flag("-x,--one-file-system", options.survey.oneVolume,
                     "pass over other volumes that are mounted there");
    command.add_flag("-q,--quiet", options.quiet, "no line for a finding; the status tells");
    command.add_flag("--json", options.json, "one JSON object per line: each finding, a summary");
}

void add_store_check(const Command &store, int &status) {
    const Command command = store.add_command("check", "Tell what is wrong with stores");
    const auto options = std::make_shared<SurveyRunOptions>();
    add_survey_options(command, *options);
    const Option report = add_report_option(command);
    const PathOperands paths(command, "PATH", "PATH...");
    command.set_footer("\nOf a file: what is kept for it. Of a directory: that, and all that is kept for\n"
                       "what lies in it. Nothing is changed. \"vexofileop explain store-orphan\" tells\n"
                       "what a finding means. A store that another process has locked is not looked\n"
                       "into. Exit status, added up: 0 clean, 4 something was found, 8 something could\n"
                       "not be looked into; 16 usage.\n"
                       "Example:\n  vexofileop store check -r /volume1/photos");
    command.set_work([&status, options, report, paths] {
        options->report = report_path_of(report);
        status = SurveyRun(*options).run(paths.all());
    });
}

void add_repair(const Command &store, int &status) {
    const Command command = store.add_command("repair", "Mend stores, as far as that takes no guess");
    const auto options = std::make_shared<SurveyRunOptions>();
    const auto dryRun = std::make_shared<bool>(false);
    add_survey_options(command, *options);
    command.add_flag("--dry-run", *dryRun, "only tell what would be mended, as \"check\" does");
    const Option quarantine = command.add_value("--quarantine", "DIR", "where the originals go");
    const Option undo = command.add_value("--undo", "DIR", "put back what a repair has changed");
    const Option report = add_report_option(command);
    const PathOperands paths(command, "PATH", "PATH...");
    undo.excludes(quarantine);
    undo.excludes(report);
    paths.excludes_list(undo);
    command.set_footer("\nThe original of everything that is changed is kept first, in a new directory\n"
                       "vexofileop-quarantine-TIME-PID here, or in DIR; it stays until you remove it.\n"
                       "What takes a guess, and what another process has locked, is left and told.\n"
                       "Exit status, added up: 0 clean, 1 mended, 4 something was left, 8 something\n"
                       "could not be looked into; 16 usage. Of --undo: 0 all is back, 4 not in all.\n"
                       "Examples:\n"
                       "  vexofileop store repair -r --quarantine /volume2/originals /volume1/photos\n"
                       "  vexofileop store repair --undo /volume2/originals");
    command.set_work([&status, options, dryRun, quarantine, undo, report, paths] {
        if (undo.given()) {
            if (!paths.given().empty() || *dryRun) {
                throw UsageError("--undo takes no path beside its directory, and no --dry-run");
            }
            status = undo_repair(engine::absolute_path(undo.values().front()), options->json, options->quiet);
            return;
        }
        options->repair = !*dryRun;
        options->report = report_path_of(report);
        options->quarantine =
            quarantine.given() ? engine::absolute_path(quarantine.values().front()) : usual_quarantine();
        status = SurveyRun(*options).run(paths.all());
    });
}

} // namespace

void add_store_survey_commands(const Command &store, int &status) {
    add_store_check(store, status);
    add_repair(store, status);
}

} // namespace tool
