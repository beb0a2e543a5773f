// vexofileop ea show and diff: what the stores of files hold, and whether two hold the same.
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/commands/ea/ea_commands.h"
#include "tools/vexofileop/commands/ea/ea_show.h"
#include "tools/vexofileop/commands/path_work.h"
#include "tools/vexofileop/output/json.h"

#include <fmt/format.h>
#include <memory>

namespace tool {
namespace {

void show(Console &console, const std::string &path) {
    const std::vector<ShownStore> stores = stores_of(path);
    console.line(displayed(path) + (stores.empty() ? ": no extended metadata" : ":"));
    bool sound = true;
    for (const ShownStore &store : stores) {
        for (const std::string &line : store_lines(store, &sound)) {
            console.line("  " + line);
        }
    }
    if (!sound) {
        throw Failure("a store is malformed");
    }
}

void show_json(Console &console, const std::string &path) {
    bool sound = true;
    Json out;
    out.add_name("path", path);
    for (const ShownStore &store : stores_of(path)) {
        out.add_to_list("stores", store_json(store, &sound));
    }
    console.line(out.line());
    if (!sound) {
        throw Failure("a store is malformed");
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

using Attributes = std::map<std::string, std::string>;

void add_differing_attributes(const Attributes &one, const Attributes &other, std::vector<std::string> &found) {
    for (const auto &[name, value] : one) {
        const auto there = other.find(name);
        if (there == other.end()) {
            found.push_back(fmt::format("attribute {}: only at the first", displayed(name)));
        } else if (there->second != value) {
            found.push_back(fmt::format("attribute {} differs: {} and {} bytes", displayed(name), value.size(),
                                        there->second.size()));
        }
    }
    for (const auto &[name, value] : other) {
        if (!one.contains(name)) {
            found.push_back(fmt::format("attribute {}: only at the second", displayed(name)));
        }
    }
}

std::vector<std::string> differences(const Store::Metadata &one, const Store::Metadata &other) {
    std::vector<std::string> found;
    if (one.finderInfo != other.finderInfo) {
        found.emplace_back("Finder Info differs");
    }
    if (one.fork != other.fork) {
        found.push_back(fmt::format("resource fork differs: {} and {} bytes", one.fork.size(), other.fork.size()));
    }
    if (one.locked != other.locked) {
        found.emplace_back(one.locked ? "only the first is locked" : "only the second is locked");
    }
    add_differing_attributes(one.attributes, other.attributes, found);
    return found;
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
Store::Metadata metadata_of(const std::string &path) {
    try {
        return Store(path).metadata();
    } catch (const Failure &failure) {
        throw Failure(fmt::format("{}: {}", displayed(path), failure.what()));
    }
}

int diff(const std::string &one, const std::string &other, bool json) {
    Console console;
    try {
        const std::vector<std::string> found = differences(metadata_of(one), metadata_of(other));
        print_differences(console, found, json);
        return !console.check_output() ? exitNone : found.empty() ? exitAll : exitSome;
    } catch (const Failure &failure) {
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
        status = diff(absolute_path(given[0]), absolute_path(given[1]), *json);
    });
}

} // namespace

void add_ea_inspection_commands(const Command &ea, int &status) {
    add_show(ea, status);
    add_diff(ea, status);
}

} // namespace tool
