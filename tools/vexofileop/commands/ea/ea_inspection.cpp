// vexofileop ea show and diff: what the stores of files hold, and whether two hold the same.
#include "tools/engine/check/metadata_comparison.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store.h"
#include "tools/engine/walk/held_entry.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/ea/ea_commands.h"
#include "tools/vexofileop/commands/ea/ea_show.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/commands/path_work.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/terminal/console.h"

#include <fmt/format.h>
#include <memory>

namespace tool {
namespace {

void show(Console &console, const std::string &path) {
    const std::vector<engine::RawStore> stores = engine::raw_stores_of(engine::HeldEntry(path));
    console.line(engine::displayed(path) + (stores.empty() ? ": no extended metadata" : ":"));
    bool sound = true;
    for (const engine::RawStore &store : stores) {
        for (const std::string &line : store_lines(store, &sound)) {
            console.line("  " + line);
        }
    }
    if (!sound) {
        throw engine::Failure("a store is malformed");
    }
}

void show_json(Console &console, const std::string &path) {
    bool sound = true;
    Json out;
    out.add_name("path", path);
    for (const engine::RawStore &store : engine::raw_stores_of(engine::HeldEntry(path))) {
        out.add_to_list("stores", store_json(store, &sound));
    }
    console.line(out.line());
    if (!sound) {
        throw engine::Failure("a store is malformed");
    }
}

void add_show(const Command &ea, int &status) {
    const Command command = ea.add_command("show", "Show everything in the stores of a file");
    const PathOperands files(command, "FILE", "FILE...");
    const auto json = std::make_shared<bool>(false);
    command.add_flag("--json", *json, "one JSON object per file");
    command.set_footer("\nFILE is a file, or a store itself: a \"._\" file, a stream file, a resource file.\n"
                       "The first bad field of a malformed store is named.\n"
                       "Example:\n"
                       "  vexofileop ea show photo.jpg");
    command.set_work([&status, json, files] {
        PathWork work;
        work.each(files.all(), [&](const std::string &path) {
            if (*json) {
                show_json(work.console(), path);
            } else {
                show(work.console(), path);
            }
        });
        status = work.finish();
    });
}

void print_differences(Console &console, const std::vector<std::string> &found, bool json) {
    Json out;
    out.add_flag("same", found.empty());
    for (const std::string &difference : found) {
        if (!json) {
            console.line(difference);
            continue;
        }
        Json row;
        row.add_text("text", difference);
        out.add_to_list("differences", std::move(row));
    }
    if (json) {
        console.line(out.line());
    }
}

// Throws a Failure that names the file.
engine::Store::Metadata metadata_of(const std::string &path) {
    try {
        return engine::Store(engine::HeldEntry(path)).metadata();
    } catch (const engine::Failure &failure) {
        throw engine::Failure(fmt::format("{}: {}", engine::displayed(path), failure.what()));
    }
}

int diff(const std::string &one, const std::string &other, bool json) {
    Console console;
    try {
        const std::vector<std::string> found = engine::metadata_differences(metadata_of(one), metadata_of(other));
        print_differences(console, found, json);
        return !console.check_output() ? exitNone : found.empty() ? exitAll : exitSome;
    } catch (const engine::Failure &failure) {
        console.message(failure.what());
        return exitNone;
    }
}

void add_diff(const Command &ea, int &status) {
    const Command command = ea.add_command("diff", "Compare the metadata of two files");
    const Option files = command.add_operands("A", "A B");
    const auto json = std::make_shared<bool>(false);
    command.add_flag("--json", *json, "one JSON object");
    command.set_footer("\nAttributes, Finder Info, resource fork, and whether AFP clients see it locked.\n"
                       "Where the volumes keep them makes no difference.\n"
                       "Exit status: 0 same, 1 different, 2 trouble.\n"
                       "Example:\n"
                       "  vexofileop ea diff photo.jpg /volume2/backup/photo.jpg");
    command.set_work([&status, json, files] {
        const std::vector<std::string> given = files.values();
        if (given.size() != 2) {
            throw UsageError("two files are needed");
        }
        status = diff(engine::absolute_path(given[0]), engine::absolute_path(given[1]), *json);
    });
}

} // namespace

void add_ea_inspection_commands(const Command &ea, int &status) {
    add_show(ea, status);
    add_diff(ea, status);
}

} // namespace tool
