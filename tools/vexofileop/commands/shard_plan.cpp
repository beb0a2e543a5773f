#include "tools/vexofileop/commands/shard_plan.h"

#include "tools/engine/report/names.h"
#include "tools/engine/shards/division.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/quantity.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/output/entry_text.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/terminal/console.h"
#include "tools/vexofileop/terminal/progress_bar.h"
#include "tools/vexofileop/terminal/signals.h"

#include <algorithm>
#include <cstdint>
#include <fmt/format.h>
#include <sys/stat.h>

namespace tool {
namespace {

constexpr int64_t kMostShards = 1000; // lists that are open at once

class DivisionTeller : public engine::DivisionObserver {
  public:
    DivisionTeller(std::string out, bool verbose, bool json)
        : m_out(std::move(out)), m_verbose(verbose), m_json(json) {}

    bool stopped() const override { return stop_signal() != 0; }
    void unreadable(const std::string &path, const engine::Problem &problem) override {
        ++m_unreadable;
        m_console.message(fmt::format("{}: {}; what it holds is in no list", engine::displayed(path), problem.reason));
    }

    int finish(const engine::Division &division) {
        int status = !division.whole ? exitSignal + stop_signal() : m_unreadable > 0 ? exitSome : exitAll;
        if (!division.whole) {
            m_console.message("stopped; there are no lists");
        } else if (m_json || m_verbose) {
            tell_each(division);
        }
        if (m_json) {
            m_console.line(summary_object(division, status));
        } else if (division.whole) {
            m_console.line(summary_text(division));
        }
        if (!m_console.check_output() && status == exitAll) {
            status = exitSome;
        }
        return status;
    }

  private:
    static engine::Shard sum_of(const engine::Division &division) {
        engine::Shard sum;
        for (const engine::Shard &shard : division.shards) {
            sum.entries += shard.entries;
            sum.bytes += shard.bytes;
        }
        return sum;
    }

    void tell_each(const engine::Division &division) {
        size_t number = 0;
        for (const engine::Shard &shard : division.shards) {
            const std::string list = engine::joined(m_out, fmt::format("shard-{}", ++number));
            if (m_json) {
                Json object;
                object.add_text("event", "shard");
                object.add_text("operation", "plan shards");
                object.add_name("list", list);
                object.add_number("entries", shard.entries);
                object.add_number("bytes", shard.bytes);
                m_console.line(object.line());
            } else {
                m_console.line(fmt::format("{}: {} ({})", engine::displayed(list),
                                           amount_text(shard.entries, "entry", "entries"), size_text(shard.bytes)));
            }
        }
    }

    std::string summary_text(const engine::Division &division) const {
        const engine::Shard sum = sum_of(division);
        const auto [least, most] = std::ranges::minmax(division.shards, {}, &engine::Shard::bytes);
        return fmt::format("{} of {} ({}, {} to {} each), and the list of {} in {}",
                           amount_text(static_cast<int64_t>(division.shards.size()), "list", "lists"),
                           amount_text(sum.entries, "entry", "entries"), size_text(sum.bytes), size_text(least.bytes),
                           size_text(most.bytes), amount_text(division.directories, "directory", "directories"),
                           engine::displayed(m_out));
    }

    std::string summary_object(const engine::Division &division, int status) const {
        const engine::Shard sum = sum_of(division);
        Json summary;
        summary.add_text("event", "summary");
        summary.add_text("operation", "plan shards");
        summary.add_number("shards", static_cast<int64_t>(division.shards.size()));
        summary.add_number("entries", sum.entries);
        summary.add_number("directories", division.directories);
        summary.add_number("bytes", sum.bytes);
        summary.add_number("unreadable", m_unreadable);
        summary.add_flag("cancelled", !division.whole);
        summary.add_number("exit_status", status);
        return summary.line();
    }

    Console m_console;
    std::string m_out;
    bool m_verbose, m_json;
    int64_t m_unreadable = 0;
};

} // namespace

ShardPlan::ShardPlan(const Command &plan)
    : m_plan(plan), m_shards(plan.add_value("--shards", "N", "cut SRC into N lists, each for a copy of its own")),
      m_out(plan.add_value("--out", "DIR", "with --shards: the lists go there; new, or empty")),
      m_verbose(plan.add_flag("-v,--verbose", "with --shards: tell of each list")),
      m_json(plan.add_flag("--json", "with --shards: one JSON object per line")), m_selection(plan),
      m_operands(plan.add_operands("SRC", "SRC")) {
    m_shards.needs(m_out);
    for (const Option &option : extras()) {
        option.needs(m_shards);
    }
}

// What says how the tree is cut.
std::vector<Option> ShardPlan::extras() const {
    std::vector<Option> options = m_selection.all();
    options.insert(options.end(), {m_out, m_verbose, m_json});
    return options;
}

void ShardPlan::keep_apart(const Command &command) const {
    std::vector<Option> options = extras();
    options.insert(options.end(), {m_shards, m_operands});
    for (const Option &option : options) {
        command.excludes(option);
    }
}

int ShardPlan::run() const {
    const std::vector<std::string> sources = m_operands.values();
    if (!m_shards.given()) {
        if (!sources.empty()) {
            m_plan.refuse_command(sources.front());
        }
        throw UsageError("A subcommand is required");
    }
    if (sources.size() != 1 || sources.front().empty()) {
        throw UsageError("give the one directory that --shards cuts");
    }
    const int64_t shards = parse_count("--shards", m_shards.values().front(), 1);
    if (shards > kMostShards) {
        throw UsageError(fmt::format("--shards: {} at most", kMostShards));
    }
    const std::string source = engine::absolute_path(sources.front());
    const std::string out = engine::absolute_path(m_out.values().front());
    const auto found = engine::look_through(source);
    if (!found || !S_ISDIR(found->st_mode)) {
        throw UsageError(engine::displayed(source) + (found ? ": is not a directory" : ": no such directory"));
    }
    DivisionTeller teller(out, m_verbose.given(), m_json.given());
    return teller.finish(engine::divide_tree(source, out, static_cast<int>(shards), teller, m_selection.chosen()));
}

} // namespace tool
