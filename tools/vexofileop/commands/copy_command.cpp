// vexofileop copy and vexofileop move, and the plans of both.
#include "tools/engine/report/names.h"
#include "tools/vexofileop/arguments/errands.h"
#include "tools/vexofileop/arguments/jobs_option.h"
#include "tools/vexofileop/arguments/loss_classes.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/arguments/progress_option.h"
#include "tools/vexofileop/arguments/quantity.h"
#include "tools/vexofileop/arguments/report_path.h"
#include "tools/vexofileop/arguments/selection_options.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/arguments/way_options.h"
#include "tools/vexofileop/commands/batch.h"
#include "tools/vexofileop/commands/commands.h"
#include "tools/vexofileop/commands/plan_run.h"
#include "tools/vexofileop/commands/shard_plan.h"

#include <algorithm>
#include <cstdint>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tool {
namespace {

// Of several policies the last one given holds, so that an alias can be overridden.
struct Policy {
    Option option;
    engine::Conflict conflict;
};

engine::Conflict chosen_policy(const Command &command, const std::vector<Policy> &policies) {
    engine::Conflict chosen = engine::Conflict::fail;
    for (const Option &given : command.given_options()) {
        for (const Policy &policy : policies) {
            chosen = policy.option == given ? policy.conflict : chosen;
        }
    }
    return chosen;
}

std::vector<Policy> add_policies(const Command &command) {
    const auto rare = [&](const char *names, const char *text, engine::Conflict conflict) {
        return Policy{command.rare().add_flag(names, text), conflict};
    };
    const auto add = [&](const char *names, const char *text, engine::Conflict conflict) {
        return Policy{command.add_flag(names, text), conflict};
    };
    return {
        add("-f,--force", "replace a destination file that exists", engine::Conflict::replace),
        add("-u,--update", "replace one that differs, pass over the same", engine::Conflict::update),
        add("-n,--no-clobber", "leave it as it is; counts as a success", engine::Conflict::skip),
        add("-i,--interactive", "ask before replacing it", engine::Conflict::ask),
        rare("--keep-both", "give the new file a free name: \"name (1).txt\"", engine::Conflict::keep_both),
    };
}

// Where the files go: -t and -T.
struct TargetOptions {
    explicit TargetOptions(const Command &command)
        : directory(command.rare().add_value("-t,--target-directory", "DIR", "all of them go into this directory")),
          newName(command.rare().add_flag("-T,--no-target-directory",
                                          "DEST is the new name, also where it is a directory")) {
        directory.excludes(newName);
    }
    Target kind() const {
        return directory.given() ? Target::directory : newName.given() ? Target::new_name : Target::as_it_is;
    }
    Option directory, newName;
};

// With --relative a list names what lies below the one directory that is given, if there is one.
std::vector<Errand> relative_errands(const PathOperands &operands, std::vector<std::string> sources,
                                     const std::string &destination, Target kind, bool trees) {
    if (kind == Target::new_name) {
        throw UsageError("--relative makes paths anew in a directory, and -T names none");
    }
    if (operands.has_list() && sources.size() > 1) {
        throw UsageError("a list of relative names goes down from one directory; several are given");
    }
    const std::vector<std::string> names = operands.listed();
    if (operands.has_list() && sources.size() == 1) {
        return {plan_listed_errand(names, sources.front(), destination, trees)};
    }
    sources.insert(sources.end(), names.begin(), names.end());
    return plan_relative_errands(sources, destination);
}

// What is theirs for directories, whose list a plan of shards has made.
std::vector<Errand> finishing(const std::string &list, const PathOperands &operands, const TargetOptions &target) {
    std::vector<std::string> directories = operands.given();
    if (target.directory.given()) {
        directories.push_back(target.directory.values().front());
    }
    if (directories.size() != 2 || directories.back().empty()) {
        throw UsageError("--finish needs the directory that was cut and the one that it was copied to");
    }
    Errand errand = plan_listed_errand(names_in_whole_list(list), directories[0], directories[1], false);
    errand.below->directoriesAlone = true;
    return {std::move(errand)};
}

// The last operand is where the files go, where no option says so. A list has any number of them, so that it needs a
// directory.
std::vector<Errand> planned(const PathOperands &operands, const TargetOptions &target, engine::Operation operation,
                            engine::Conflict conflict, bool relative, bool trees) {
    std::vector<std::string> sources = operands.given();
    const Target kind = target.kind();
    const bool last = kind != Target::directory;
    if (sources.size() < (operands.has_list() ? 0U : 1U) + (last ? 1U : 0U)) {
        throw UsageError(!last             ? "no file given"
                         : sources.empty() ? "no file and no destination given"
                                           : "no destination given");
    }
    std::string destination = last ? sources.back() : target.directory.values().front();
    if (destination.empty()) {
        throw UsageError("an empty path was given");
    }
    if (last) {
        sources.pop_back();
    }
    if (operands.has_list_on_stdin() && conflict == engine::Conflict::ask) {
        throw UsageError("-i reads its answers from stdin, which is the list here");
    }
    if (relative) {
        return relative_errands(operands, std::move(sources), destination, kind, trees);
    }
    if (operands.has_list()) {
        if (kind == Target::new_name) {
            throw UsageError("a list of files needs a directory to go into, and -T names none");
        }
        destination += destination.ends_with('/') ? "" : "/";
        const std::vector<std::string> more = operands.listed();
        sources.insert(sources.end(), more.begin(), more.end());
    }
    for (const std::string &source : sources) {
        if (operation == engine::Operation::move && names_contents(source)) {
            throw UsageError(fmt::format("{}: give the directory by its name", engine::displayed(source)));
        }
    }
    return plan_errands(sources, destination, kind);
}

constexpr const char *kNotes = "\nMode, owner, times, ACL, DOS attributes and extended metadata go along. Of -f,\n"
                               "-u, -n, -i, --keep-both the last one holds; directories are merged into.\n"
                               "Exit status: 0 all done and nothing lost that --accept does not name, 1 some,\n"
                               "2 none or wrong usage; 130 after Ctrl-C.\n";

constexpr const char *kPlanNotes = "\nNothing is done. Entries that are not simply new are told (-v: all), then what\n"
                                   "would be lost, by class, the room that is needed and is there, and the status\n"
                                   "of the run, which is that of the plan too. What a volume takes is tried in a\n"
                                   "private directory of the destination, removed again, where its times can be\n"
                                   "put back; else, or with --no-probe, the system is believed. -i means yes.\n";

int planned_status(const BatchOptions &batch, bool probe, const std::vector<Errand> &errands) {
    PlanRunOptions options{
        {.transfer = batch.transfer, .probe = probe}, batch.report, batch.stopOnError, batch.verbose, batch.json};
    options.mostErrors = batch.mostErrors;
    return PlanRun(options).run(errands);
}

enum class Act { run, plan };

std::string footer(engine::Operation operation, Act act) {
    const bool copy = operation == engine::Operation::copy;
    if (act == Act::plan) {
        return std::string(kPlanNotes) + "Example:\n  vexofileop plan " + word_of(operation) + (copy ? " -r" : "") +
               " photos /volume2/backup";
    }
    return std::string(kNotes) + (copy ? "Example:\n  vexofileop copy -rn film.mkv photos /volume2/backup"
                                       : "Examples:\n"
                                         "  vexofileop move draft.txt final.txt\n"
                                         "  vexofileop move --keep-both *.jpg /volume2/photo");
}

const char *line_of(engine::Operation operation, Act act) {
    const bool copy = operation == engine::Operation::copy;
    return act == Act::plan ? (copy ? "Tell what a copy would do" : "Tell what a move would do")
           : copy           ? "Copy files and trees with all that is theirs"
                            : "Move or rename files and trees";
}

// What the command line of a copy, a move or a plan of one has.
class TransferArguments {
  public:
    TransferArguments(const Command &command, engine::Operation operation, Act act)
        : m_command(command), m_plan(act == Act::plan), m_policies(add_policies(command)),
          m_accept(add_accept_option(command)), m_report(add_report_option(command)),
          m_maxErrors(command.rare().add_value("--max-errors", "N", "end at the Nth entry that fails")),
          m_target(command), m_ways(command), m_selection(command), m_operands(command, "FILE", "FILE... DEST") {
        m_options.transfer.operation = operation;
        m_options.transfer.trees = operation == engine::Operation::move;
        add_ways(act);
        add_output(act);
    }

    int run() {
        engine::TransferOptions &transfer = m_options.transfer;
        m_options.report = report_path_of(m_report);
        transfer.selection = m_selection.chosen();
        transfer.accepted = loss_set_of(m_accept, "--accept");
        transfer.conflict = chosen_policy(m_command, m_policies);
        transfer.links = transfer.trees;
        transfer.hardLinks = !m_noHardLinks;
        m_ways.apply(transfer);
        m_options.mostErrors = m_maxErrors.given() ? parse_count("--max-errors", m_maxErrors.values().front(), 1) : 0;
        if (m_progress) {
            const ProgressOption::Wanted progress = m_progress->wanted();
            m_options.noProgress = progress.none;
            m_options.progressLines = progress.lines;
        }
        if (transfer.checksum && transfer.conflict != engine::Conflict::update) {
            throw UsageError("--checksum says how -u compares, and needs it");
        }
        if (transfer.inPlace && transfer.conflict != engine::Conflict::replace &&
            transfer.conflict != engine::Conflict::update && transfer.conflict != engine::Conflict::ask) {
            throw UsageError("--in-place says how -f, -i and -u replace, and needs one of them");
        }
        if (transfer.inPlace && transfer.backup.wanted) {
            throw UsageError("--backup keeps what is replaced, and --in-place writes into it");
        }
        if (transfer.inPlace && transfer.verify) {
            throw UsageError("--verify keeps what is replaced until the copy is proven, and --in-place writes into it");
        }
        if (transfer.inPlace && transfer.clone == engine::Clone::always) {
            throw UsageError("--clone=always shares the source's data, and --in-place writes into old ones");
        }
        // A list of what a directory holds names links as such.
        const bool listed =
            m_relative && m_operands.has_list() && m_operands.given().size() > (m_target.directory.given() ? 0 : 1);
        transfer.links = transfer.links || listed;
        if (m_finishLater && (!listed || transfer.trees)) {
            throw UsageError("--finish-later is for --relative with a list below one directory, without -r");
        }
        std::vector<Errand> errands =
            m_finish && m_finish->given()
                ? finishing(m_finish->values().front(), m_operands, m_target)
                : planned(m_operands, m_target, transfer.operation, transfer.conflict, m_relative, transfer.trees);
        check_names(errands);
        for (Errand &errand : errands) {
            if (errand.below) {
                errand.below->unfinished = m_finishLater;
            }
        }
        return m_plan ? planned_status(m_options, !m_noProbe, errands) : Batch(m_options).run(errands);
    }

  private:
    // A move takes directories, and leaves none empty that it was to take things out of.
    void check_names(const std::vector<Errand> &errands) const {
        for (const Errand &errand : errands) {
            if (m_options.transfer.operation == engine::Operation::move && errand.below &&
                std::ranges::find(errand.below->names, "") != errand.below->names.end()) {
                throw UsageError(fmt::format("{}: give the directory by its name", engine::displayed(errand.source)));
            }
        }
    }
    void add_ways(Act act) {
        if (m_options.transfer.operation == engine::Operation::copy) {
            m_command.add_flag("-r,-a,--recursive", m_options.transfer.trees,
                               "directories too; links in them stay links");
            m_command.rare().add_flag("-R,--archive", m_options.transfer.trees, "directories too; the same as -r");
            m_command.rare().add_flag("-p,--preserve", "accepted: everything goes along anyway");
            add_shards(act);
        } else {
            m_command.rare().add_flag("-r,-R,-a,-p", "accepted: this is what a move does anyway");
        }
        m_command.rare().add_flag("--relative", m_relative,
                                  "make the whole path anew in DEST, or what follows \"/./\"");
        m_command.rare().add_flag("--specials", m_options.transfer.specials,
                                  "make pipes, devices and sockets anew; else they are a loss");
        m_command.rare().add_flag("--checksum", m_options.transfer.checksum, "with -u: read what seems to be the same");
        m_command.rare().add_flag("--in-place", m_options.transfer.inPlace,
                                  "with -f: write into the old file, which keeps its names");
        m_command.rare().add_flag("--no-hard-links", m_noHardLinks, "names of one file become files of their own");
        m_command.rare().add_flag("--stop-on-error", m_options.stopOnError, "end at the first entry that fails");
        if (act == Act::run) {
            m_command.add_flag("--dry-run", m_plan, "do nothing; tell what would be done, as \"plan\" does");
            m_command.add_flag("--verify", m_options.transfer.verify,
                               "read each file back and compare it with its source");
            add_jobs_option(m_command, m_options.jobs);
        } else {
            m_command.add_flag("--no-probe", m_noProbe, "make nothing at the destination; believe the system");
            m_command.rare().add_flag("--verify", m_options.transfer.verify,
                                      "accepted: the run reads back, a plan does not");
            add_jobs_option(m_command, m_options.jobs, "accepted: a plan is made by one process");
        }
    }
    // Lists of a plan of shards.
    void add_shards(Act act) {
        if (act == Act::run) {
            const Command rare = m_command.rare();
            rare.add_flag("--finish-later", m_finishLater, "with a list: what is of directories is for --finish");
            m_finish = rare.add_value("--finish", "LIST", "give directories what is theirs (plan --shards)");
            m_operands.excludes_list(*m_finish);
        }
    }
    void add_output(Act act) {
        m_command.add_flag("-v,--verbose", m_options.verbose, "say what is done, and all that is not carried");
        m_command.add_flag("--json", m_options.json, "one JSON object per line: each entry, then a summary");
        if (act == Act::run) {
            m_command.rare().add_flag("-q,--quiet", m_options.quiet, "say nothing but what fails; no progress line");
            m_progress.emplace(m_command);
        } else {
            m_command.rare().add_flag("-q,--quiet", "accepted: a plan is there to be told");
            m_progress.emplace(m_command, ProgressOption::Of::plan);
        }
    }

    Command m_command;
    BatchOptions m_options;
    bool m_plan, m_noProbe = false, m_noHardLinks = false, m_relative = false, m_finishLater = false;
    std::optional<Option> m_finish;
    std::vector<Policy> m_policies;
    Option m_accept, m_report, m_maxErrors;
    std::optional<ProgressOption> m_progress;
    TargetOptions m_target;
    WayOptions m_ways;
    SelectionOptions m_selection;
    PathOperands m_operands;
};

Command add_transfer_command(const Command &program, int &status, engine::Operation operation, Act act) {
    const Command command = program.add_command(word_of(operation), line_of(operation, act));
    const auto arguments = std::make_shared<TransferArguments>(command, operation, act);
    command.set_footer(footer(operation, act));
    command.set_work([&status, arguments] { status = arguments->run(); });
    return command;
}

} // namespace

void add_copy_command(const Command &program, int &status) {
    add_transfer_command(program, status, engine::Operation::copy, Act::run);
}

void add_move_command(const Command &program, int &status) {
    add_transfer_command(program, status, engine::Operation::move, Act::run);
}

void add_plan_command(const Command &program, int &status) {
    const Command command = program.add_command("plan", "Tell what a copy or a move would do and lose");
    command.allow_command();
    command.set_footer("\nExamples (lists are copied on any machine; --finish comes last):\n"
                       "  vexofileop plan copy -r photos /volume2/backup\n"
                       "  vexofileop plan --shards 4 --out lists photos\n"
                       "  vexofileop copy -u --relative --from0 --files-from lists/shard-1 \\\n"
                       "      --finish-later photos /volume2/backup\n"
                       "  vexofileop copy --finish lists/directories photos /volume2/backup");
    const Command commands[] = {add_transfer_command(command, status, engine::Operation::copy, Act::plan),
                                add_transfer_command(command, status, engine::Operation::move, Act::plan),
                                add_mirror_plan(command, status), add_backup_plan(command, status)};
    const auto shards = std::make_shared<ShardPlan>(command);
    for (const Command &each : commands) {
        shards->keep_apart(each);
    }
    command.set_work([&status, command, shards] {
        if (!command.has_command()) {
            status = shards->run();
        }
    });
}

} // namespace tool
