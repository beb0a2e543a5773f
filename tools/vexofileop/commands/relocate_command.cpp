// vexofileop relocate: a whole directory to another place, put there at once or not at all.
#include "tools/engine/relocate/relocation.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/loss_classes.h"
#include "tools/vexofileop/arguments/progress_option.h"
#include "tools/vexofileop/arguments/report_path.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/arguments/way_options.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/commands/plan_run.h"
#include "tools/vexofileop/output/entry_text.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/output/loss_json.h"
#include "tools/vexofileop/output/progress_json.h"
#include "tools/vexofileop/output/receipt.h"
#include "tools/vexofileop/output/report.h"
#include "tools/vexofileop/terminal/console.h"
#include "tools/vexofileop/terminal/signals.h"

#include <fmt/format.h>
#include <memory>
#include <string>
#include <vector>

namespace tool {
namespace {

struct RelocateOptions {
    bool keepSource = false, specials = false, yes = false, json = false, verbose = false, dryRun = false,
         noProbe = false;
    ProgressOption::Wanted progress = {};
    std::string report = {};
};

std::string explanation(const engine::RelocationPlan &plan) {
    const std::string from = engine::displayed(plan.request.source), to = engine::displayed(plan.request.destination);
    std::string text = fmt::format("{} goes to {} in these steps:\n", from, to);
    int number = 0;
    const auto step = [&](const std::string &what) { text += fmt::format("  {}. {}\n", ++number, what); };
    if (!plan.stoppedAt.empty()) {
        text = fmt::format("{} was going to {} and was stopped {}; that is finished now:\n", from, to, plan.stoppedAt);
        step(fmt::format("The copy takes its place at {}, if it does not stand there yet.", to));
        step(fmt::format("What stood there before, now in {}, IS REMOVED.", engine::displayed(plan.staging)));
    } else {
        step(fmt::format("The tree is copied into {} and compared with the source.", engine::displayed(plan.staging)));
        step(fmt::format("The copy is renamed to {}.", to));
        if (plan.destinationExists) {
            step(fmt::format("What stands at {} now IS REMOVED WITH EVERYTHING IN IT.", to));
        }
    }
    step(plan.request.keepSource
             ? fmt::format("{} stays.", from)
             : fmt::format("{} is removed, if the copy has everything, entry by entry as it was compared.", from));
    text.pop_back();
    return text;
}

class Relocation : private engine::RelocationObserver {
  public:
    Relocation(const RelocateOptions &options, engine::RelocationRequest request)
        : m_options(options), m_plan(engine::plan_relocation(request)), m_receipt(request.accepted),
          m_report("relocate", request.accepted) {
        m_report.begin(request.source, request.destination);
    }

    int run() {
        if (m_options.dryRun) {
            return plan();
        }
        if (!agreed()) {
            return exitNone;
        }
        engine::raise_descriptor_limit();
        const bool bar = !m_options.progress.none && !m_options.json && Console::can_show_progress();
        if (bar || m_options.progress.lines) {
            const auto totals = engine::totals_of(m_plan.request.source, [] { return stop_signal() != 0; });
            if (m_options.progress.lines) {
                m_console.start_progress_lines(totals.bytes, totals.files, progress_text("relocate", "copy"));
            } else {
                m_console.start_progress(totals.bytes);
            }
        }
        const engine::RelocationResult result = engine::relocate(m_plan, *this);
        m_console.end_progress();
        int status = told(result);
        if (!write_report(status) && status == exitAll) {
            status = exitSome;
        }
        if (m_options.json) {
            m_console.line(summary_line(status));
        }
        return m_console.check_output() || status != exitAll ? status : exitSome;
    }

  private:
    // The steps, and what a plan tells of the copy that they begin with.
    int plan() {
        if (!m_options.json) {
            m_console.line(explanation(m_plan));
        }
        const PlanRunOptions options{.plan = {.transfer = {.links = true,
                                                           .specials = m_plan.request.specials,
                                                           .trees = true,
                                                           .accepted = m_plan.request.accepted},
                                              .fresh = true,
                                              .probe = !m_options.noProbe},
                                     .report = m_options.report,
                                     .verbose = m_options.verbose,
                                     .json = m_options.json,
                                     .allOrNothing = true};
        return PlanRun(options).run({{m_plan.request.source, m_plan.request.destination}});
    }

    bool agreed() {
        if (m_options.yes) {
            return true;
        }
        m_console.message(explanation(m_plan));
        if (!Console::can_ask()) {
            throw UsageError("there is no terminal to ask on; -y goes ahead without asking");
        }
        return m_console.confirm("go ahead?");
    }

    bool stopped() const override { return stop_signal() != 0; }
    void progress(int64_t bytes) override {
        m_bytes += bytes;
        m_console.progress(m_bytes, m_files);
    }
    void arrived(int64_t files) override {
        m_files += files;
        m_console.progress(m_bytes, m_files);
    }
    void copied() override {
        m_console.clear_progress();
        m_console.start_phase("compare");
    }
    void removing() override { m_console.start_phase("remove"); }
    void failed(const std::string &path, const engine::Problem &problem) override {
        m_report.problem(path, m_plan.request.destination, problem.reason);
        m_console.message(problem_text(engine::displayed(path), problem));
    }

    void lost(const std::string &source, const std::string &destination, const engine::Loss &loss) override {
        m_receipt.add(source, destination, loss);
        m_report.loss(source, destination, loss);
        if (m_options.json) {
            m_console.line(loss_event(source, destination, loss).line());
        } else if (m_options.verbose) {
            m_console.line(loss_text(source, destination, loss));
        }
    }
    bool write_report(int status) {
        if (m_options.report.empty()) {
            return true;
        }
        const Fate fate = !m_inPlace && status != exitAll ? Fate::failed
                          : m_plan.request.keepSource     ? Fate::copied
                                                          : Fate::moved;
        m_report.count(fate, 1, m_bytes);
        try {
            m_report.write(m_options.report, status);
            return true;
        } catch (const engine::Failure &failure) {
            m_console.message(failure.what());
            return false;
        }
    }
    void tell_receipt() {
        if (!m_options.json) {
            for (const std::string &line : m_receipt.lines()) {
                m_console.message(line);
            }
        }
    }

    // The exit status of what came of it, with what there is to say.
    int told(const engine::RelocationResult &result) {
        const std::string source = engine::displayed(m_plan.request.source);
        const std::string both = fmt::format("{} -> {}", source, engine::displayed(m_plan.request.destination));
        const bool signalled = stop_signal() != 0;
        m_inPlace = result.inPlace;
        tell_receipt();
        switch (result.end) {
        case engine::RelocationEnd::done:
            return exitAll;
        case engine::RelocationEnd::cancelled:
            m_console.message(fmt::format("stopped; {} is as it was", source));
            break;
        case engine::RelocationEnd::not_copied:
            m_console.message(problem_text(both, result.problem) + fmt::format("; {} is as it was", source));
            break;
        case engine::RelocationEnd::unfinished:
            m_console.message(problem_text(both, result.problem));
            break;
        case engine::RelocationEnd::incomplete:
            m_console.message(
                fmt::format("the copy is in place; {} {} not in it as in the source, so {} stays as it is",
                            result.missing, result.missing == 1 ? "thing is" : "things are", source) +
                (!m_receipt.failing(*engine::loss_set("all")).empty()
                     ? fmt::format("; --accept {} removes it", m_receipt.failing(*engine::loss_set("all")))
                     : ""));
            break;
        case engine::RelocationEnd::source_remains:
            if (signalled) {
                m_console.message(fmt::format("stopped; {} removed", result.removed));
            }
            m_console.message(fmt::format("the copy is in place; {} {} removed entirely", source,
                                          signalled ? "is not" : "could not be"));
            break;
        case engine::RelocationEnd::old_remains:
            m_console.message("the copy is in place; what stood there before could not be removed entirely");
            break;
        }
        tell_rest(result);
        if (signalled) {
            return exitSignal + stop_signal();
        }
        return result.inPlace ? exitSome : exitNone;
    }

    // What a second run, or somebody by hand, has to know.
    void tell_rest(const engine::RelocationResult &result) {
        if (!result.aside.empty()) {
            m_console.message(fmt::format("what is left of the old one is in {}", engine::displayed(result.aside)));
        }
        if (result.noteStays) {
            m_console.message(fmt::format("the same command again goes on from here, by the note in {}",
                                          engine::displayed(m_plan.staging)));
        }
    }

    std::string summary_line(int status) const {
        Json line;
        line.add_text("event", "summary");
        line.add_text("operation", "relocate");
        line.add_text("status", status == exitAll ? "done" : m_inPlace ? "partly" : "failed");
        line.add_name("source", m_plan.request.source);
        line.add_name("destination", m_plan.request.destination);
        line.add_flag("source_kept", engine::exists(m_plan.request.source));
        line.add_flag("in_place", m_inPlace || status == exitAll);
        m_receipt.add_to(line);
        if (stop_signal() != 0) {
            line.add_text("stopped_by", "signal");
        }
        line.add_flag("cancelled", stop_signal() != 0);
        line.add_number("exit_status", status);
        return line.line();
    }

    const RelocateOptions &m_options;
    engine::RelocationPlan m_plan;
    Console m_console;
    Receipt m_receipt;
    Report m_report;
    int64_t m_bytes = 0, m_files = 0;
    bool m_inPlace = false;
};

} // namespace

void add_relocate_command(const Command &program, int &status) {
    const Command command = program.add_command("relocate", "Bring a whole directory to another place, all at once");
    const auto options = std::make_shared<RelocateOptions>();
    command.add_flag("--keep-source", options->keepSource, "leave the source where it is");
    command.rare().add_flag("--specials", options->specials, "make pipes, devices and sockets anew; else a loss");
    command.add_flag("-y,--yes", options->yes, "do not explain and ask first");
    command.add_flag("--dry-run", options->dryRun, "explain, tell what \"plan copy\" would, do nothing");
    add_dry_no_probe(command, options->noProbe);
    const Option accept = add_accept_option(command);
    const Option report = add_report_option(command);
    command.add_flag("-v,--verbose", options->verbose, "name all that is not carried");
    command.add_flag("--json", options->json, "one JSON object per line: losses, then what came of it");
    const ProgressOption progress(command);
    const Option operands = command.add_operands("SRC", "SRC DST");
    command.set_footer("\nThe tree is copied into a private directory beside DST and compared with SRC in\n"
                       "all that belongs to it; then the copy takes the place of DST at once, and what\n"
                       "stood there is REMOVED with everything in it. SRC is removed only when all\n"
                       "arrived, each entry if it still is what was compared. DST is the new path\n"
                       "itself. The first entry that cannot be copied ends it, with both as they were;\n"
                       "a volume mounted in one is refused. A stopped one is finished by the same.\n"
                       "Exit status: 0 done; 1 in place, but something was lost on the way or remains;\n"
                       "2 nothing done; 128 and the number of the signal that stopped it.\n"
                       "Example:\n"
                       "  vexofileop relocate --keep-source /volume1/photo /volume2/photo");
    command.set_work([&status, options, operands, accept, report, progress] {
        options->report = report_path_of(report);
        refuse_no_probe(options->noProbe, options->dryRun);
        options->progress = progress.wanted();
        const std::vector<std::string> paths = operands.values();
        if (paths.size() != 2) {
            throw UsageError("give the directory and the path that it is to have");
        }
        status = Relocation(*options, {.source = engine::absolute_path(paths[0]),
                                       .destination = engine::absolute_path(paths[1]),
                                       .keepSource = options->keepSource,
                                       .accepted = loss_set_of(accept, "--accept"),
                                       .specials = options->specials})
                     .run();
    });
}

} // namespace tool
