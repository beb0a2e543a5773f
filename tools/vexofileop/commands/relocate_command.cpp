// vexofileop relocate: a whole directory to another place, put there at once or not at all.
#include "tools/engine/relocate/relocation.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/entry_text.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/terminal/console.h"
#include "tools/vexofileop/terminal/signals.h"

#include <fmt/format.h>
#include <memory>
#include <string>
#include <vector>

namespace tool {
namespace {

struct Options {
    bool keepSource = false, yes = false, noProgress = false, json = false;
};

std::string explanation(const engine::RelocationPlan &plan) {
    const std::string from = engine::displayed(plan.request.source), to = engine::displayed(plan.request.destination);
    std::string text = fmt::format("{} goes to {} in these steps:\n", from, to);
    int number = 0;
    const auto step = [&](const std::string &what) { text += fmt::format("  {}. {}\n", ++number, what); };
    step(fmt::format("The tree is copied into {}.{}", engine::displayed(plan.staging),
                     plan.stagingExists ? " WHAT IS IN THERE NOW IS REMOVED." : ""));
    if (plan.destinationExists) {
        step(fmt::format("{} IS REMOVED WITH EVERYTHING IN IT.", to));
    }
    step(fmt::format("The copy is renamed to {} and compared with the source.", to));
    step(plan.request.keepSource ? fmt::format("{} stays.", from)
                                 : fmt::format("{} is removed, if the copy has everything.", from));
    text.pop_back();
    return text;
}

class Relocation : private engine::RelocationObserver {
  public:
    Relocation(const Options &options, engine::RelocationRequest request)
        : m_options(options), m_plan(engine::plan_relocation(request)) {}

    int run() {
        if (!agreed()) {
            return exitNone;
        }
        engine::raise_descriptor_limit();
        if (!m_options.noProgress && !m_options.json && Console::can_show_progress()) {
            m_console.start_progress(engine::totals_of(m_plan.request.source, [] { return stop_signal() != 0; }).bytes);
        }
        const int status = told(engine::relocate(m_plan, *this));
        if (m_options.json) {
            m_console.line(summary_line(status));
        }
        return m_console.check_output() || status != exitAll ? status : exitSome;
    }

  private:
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
        m_console.progress(m_bytes);
    }
    void copied() override { m_console.clear_progress(); }
    void failed(const std::string &path, const engine::Problem &problem) override {
        m_console.message(problem_text(engine::displayed(path), problem));
    }

    // The exit status of what came of it, with what there is to say.
    int told(const engine::RelocationResult &result) {
        const std::string source = engine::displayed(m_plan.request.source);
        switch (result.end) {
        case engine::RelocationEnd::done:
            return exitAll;
        case engine::RelocationEnd::cancelled:
            m_console.message(fmt::format("stopped; {} is as it was", source));
            return exitSignal + stop_signal();
        case engine::RelocationEnd::not_copied:
            m_console.message(fmt::format("{} -> {}: {} ({}); {} is as it was{}", source,
                                          engine::displayed(m_plan.request.destination), result.problem.reason,
                                          engine::code_text(result.problem.code), source,
                                          result.destinationLost ? ", what stood at the destination is gone" : ""));
            return stop_signal() != 0 ? exitSignal + stop_signal() : static_cast<int>(exitNone);
        case engine::RelocationEnd::incomplete:
            m_console.message(fmt::format("the copy is in place; {} {} in it, so {} stays as it is", result.missing,
                                          result.missing == 1 ? "entry is not" : "entries are not", source));
            return exitSome;
        case engine::RelocationEnd::source_remains:
            if (stop_signal() != 0) {
                m_console.message(fmt::format("stopped; {} removed", result.removed));
            }
            m_console.message(fmt::format("the copy is in place; {} could not be removed entirely", source));
            return exitSome;
        }
        return exitNone;
    }

    std::string summary_line(int status) const {
        Json line;
        line.add_text("event", "summary");
        line.add_text("operation", "relocate");
        line.add_text("status", status == exitAll ? "done" : status == exitSome ? "partly" : "failed");
        line.add_name("source", m_plan.request.source);
        line.add_name("destination", m_plan.request.destination);
        line.add_flag("source_kept", engine::exists(m_plan.request.source));
        line.add_number("exit_status", status);
        return line.line();
    }

    const Options &m_options;
    engine::RelocationPlan m_plan;
    Console m_console;
    int64_t m_bytes = 0;
};

} // namespace

void add_relocate_command(const Command &program, int &status) {
    const Command command = program.add_command("relocate", "Bring a whole directory to another place, all at once");
    const auto options = std::make_shared<Options>();
    command.add_flag("--keep-source", options->keepSource, "leave the source where it is");
    command.add_flag("-y,--yes", options->yes, "do not explain and ask first");
    command.add_flag("--json", options->json, "a JSON object that tells what came of it");
    command.add_flag("--no-progress", options->noProgress, "no progress line on a terminal");
    const Option operands = command.add_operands("SRC", "SRC DST");
    command.set_footer("\nThe tree is copied into \"@tmp\" beside DST, which is emptied first; then DST is\n"
                       "REMOVED with everything in it and the copy takes its place. SRC is removed only\n"
                       "when everything in it arrived. DST is the new path itself, not a directory to\n"
                       "put SRC into. Owners, ACLs and extended metadata go along; the first entry that\n"
                       "fails ends it, with SRC and DST as they were.\n"
                       "Exit status: 0 done; 1 in place, but not all of it; 2 nothing done.\n"
                       "Example:\n"
                       "  vexofileop relocate --keep-source /volume1/photo /volume2/photo");
    command.set_work([&status, options, operands] {
        const std::vector<std::string> paths = operands.values();
        if (paths.size() != 2) {
            throw UsageError("give the directory and the path that it is to have");
        }
        status = Relocation(*options, {.source = engine::absolute_path(paths[0]),
                                       .destination = engine::absolute_path(paths[1]),
                                       .keepSource = options->keepSource})
                     .run();
    });
}

} // namespace tool
