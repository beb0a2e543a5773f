// vexofileop remove: files and trees together with everything that belongs to them.
#include "tools/engine/remove/shared_removal.h"
#include "tools/engine/remove/tree_removal.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/jobs_option.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/entry_text.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/terminal/console.h"
#include "tools/vexofileop/terminal/signals.h"
#include "tools/vexofileop/terminal/status_note.h"

#include <fmt/format.h>
#include <memory>
#include <string>
#include <vector>

namespace tool {
namespace {

constexpr const char *kRemoveRecursion = "-r removes it with everything in it";

struct RemoveOptions {
    engine::RemovalOptions removal;
    bool ask = false, stopOnError = false, verbose = false, quiet = false, json = false;
    int jobs = 0; // 0: the usual number
};

// As the engine takes it: a slash or a dot at the end of a path stays.
std::string removal_path(const std::string &given) {
    std::string name = given;
    while (name.size() > 1 && name.ends_with('/')) {
        name.pop_back();
    }
    const std::string path = engine::absolute_path(given), directory = path == "/" ? "" : path;
    return engine::base_name(name) == "." ? directory + "/." : given.ends_with('/') ? directory + "/" : path;
}

// One run: what is said and asked about each entry, and the count at the end.
class Removal : private engine::RemovalObserver {
  public:
    explicit Removal(const RemoveOptions &options) : m_options(options) {}

    // The exit status.
    int run(const std::vector<std::string> &paths) {
        engine::raise_descriptor_limit();
        std::vector<std::string> whole;
        for (const std::string &given : paths) {
            whole.push_back(removal_path(given));
        }
        // Questions are answered one after the other.
        const int jobs = m_options.ask || !m_options.removal.recursive ? 1
                         : m_options.jobs > 0                          ? m_options.jobs
                                                                       : engine::usual_hands(whole, "");
        if (jobs > 1) {
            engine::SharedRemoval removal(m_options.removal, hands_of(jobs), *this);
            remove_all(whole, removal);
        } else {
            engine::TreeRemoval removal(m_options.removal, *this);
            remove_all(whole, removal);
        }
        return finish();
    }

  private:
    template <typename Engine>
    void remove_all(const std::vector<std::string> &paths, Engine &removal) {
        for (const std::string &path : paths) {
            if (stopped()) {
                return;
            }
            removal.run(path);
        }
    }

    bool stopped() const override { return stop_signal() != 0 || (m_options.stopOnError && m_failed > 0); }

    bool may_remove(const std::string &path, engine::RemovalQuestion question) override {
        const char *const what = question == engine::RemovalQuestion::entry            ? "remove"
                                 : question == engine::RemovalQuestion::into_directory ? "go into the directory"
                                 : question == engine::RemovalQuestion::directory      ? "remove the directory"
                                                                                       : "remove what is left of";
        return !m_options.ask || m_console.confirm(fmt::format("{} {}?", what, engine::displayed(path)));
    }

    void entry(const std::string &path, mode_t mode, engine::Status status, const engine::Problem *problem) override {
        if (status == engine::Status::skipped && stop_signal() != 0) {
            return; // the signal was the answer
        }
        note_path(path);
        ++(status == engine::Status::done ? m_done : status == engine::Status::skipped ? m_kept : m_failed);
        m_console.progress(0, m_done + m_kept + m_failed);
        if (problem != nullptr) {
            m_console.message(problem_text(engine::displayed(path), *problem, kRemoveRecursion));
        }
        if (m_options.json) {
            m_console.line(entry_line(path, mode, status, problem));
        } else if (m_options.verbose && status != engine::Status::failed) {
            m_console.line(engine::displayed(path) + (status == engine::Status::done ? "" : " (kept)"));
        }
    }

    static std::string entry_line(const std::string &path, mode_t mode, engine::Status status,
                                  const engine::Problem *problem) {
        Json line;
        line.add_text("event", word_of(engine::entry_kind(mode)));
        line.add_text("operation", "remove");
        line.add_text("status", word_of(status));
        line.add_name("path", path);
        if (problem != nullptr && status == engine::Status::done) {
            line.add_to_list("warnings", problem_object(*problem));
        } else if (problem != nullptr) {
            line.add_object("error", problem_object(*problem, kRemoveRecursion));
        }
        return line.line();
    }

    int finish() {
        int status = stop_signal() != 0 ? exitSignal + stop_signal() : exit_status(m_done + m_kept, m_failed);
        if (stop_signal() != 0) {
            m_console.message(fmt::format("stopped; {} removed", m_done));
        } else if (stopped()) {
            m_console.message("stopped at the first failure (--stop-on-error)");
        }
        if (m_options.json) {
            m_console.line(summary_line(status));
        } else if (m_options.removal.recursive && !m_options.quiet) {
            m_console.line(fmt::format("{} removed, {} kept, {} failed", m_done, m_kept, m_failed));
        }
        if (m_console.is_unanswered() && status == exitAll) {
            status = exitSome;
        }
        if (!m_console.check_output() && status == exitAll) {
            status = exitSome;
        }
        return status;
    }

    std::string summary_line(int status) const {
        Json summary;
        summary.add_text("event", "summary");
        summary.add_text("operation", "remove");
        summary.add_number("done", m_done);
        summary.add_number("skipped", m_kept);
        summary.add_number("failed", m_failed);
        summary.add_flag("cancelled", stop_signal() != 0);
        summary.add_number("exit_status", status);
        return summary.line();
    }

    const RemoveOptions &m_options;
    Console m_console;
    int m_done = 0, m_kept = 0, m_failed = 0;
};

} // namespace

void add_remove_command(const Command &program, int &status) {
    const Command command = program.add_command("remove", "Remove files and trees with all that is theirs");
    const auto options = std::make_shared<RemoveOptions>();
    command.add_flag("-r,-R,--recursive", options->removal.recursive, "directories too, with everything in them");
    const Option force = command.add_flag("-f,--force", "what does not exist is no failure; never ask");
    const Option ask = command.add_flag("-i,--interactive", "ask before each removal");
    command.add_flag("-d,--dir", options->removal.emptyDirectories, "empty directories too");
    command.add_flag("--stop-on-error", options->stopOnError, "end at the first entry that fails");
    command.add_flag("-v,--verbose", options->verbose, "name what is removed");
    command.add_flag("-q,--quiet", options->quiet, "say nothing but what fails");
    command.add_flag("--json", options->json, "one JSON object per line: each entry, then a summary");
    add_jobs_option(command, options->jobs);
    const PathOperands operands(command, "FILE", "FILE...");
    command.set_footer("\nExtended metadata kept beside a file goes with it, also where that is gone.\n"
                       "Links are removed, never followed. \"/\", \".\" and \"..\" are refused. Of -f and\n"
                       "-i the last one holds.\n"
                       "Exit status: 0 all removed, 1 some failed, 2 none removed or wrong usage.\n"
                       "Examples:\n"
                       "  vexofileop remove -r /volume1/photo/old\n"
                       "  find . -name '*.bak' -print0 | vexofileop remove -0 --files-from -");
    command.set_work([command, &status, options, force, ask, operands] {
        for (const Option &given : command.given_options()) {
            options->removal.force = given == force || (options->removal.force && given != ask);
            options->ask = given == ask || (options->ask && given != force);
        }
        if (options->ask && operands.has_list_on_stdin()) {
            throw UsageError("-i reads its answers from stdin, which is the list here");
        }
        const bool nothing = options->removal.force && operands.given().empty() && !operands.has_list();
        status = Removal(*options).run(nothing ? std::vector<std::string>() : operands.all());
    });
}

} // namespace tool
