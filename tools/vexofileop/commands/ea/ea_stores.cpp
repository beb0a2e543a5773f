// vexofileop ea copy, rename, remove and repair: what the library does with everything that a file has in its store.
#include "tools/vexofileop/commands/ea/ea_commands.h"

#include "tools/engine/store/whole_store.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/path_work.h"

#include <functional>
#include <memory>

namespace tool {
namespace {

// Two files, of which one is what the messages are about.
void run_on_two(const Option &operands, int &status, const char *needed, bool secondIsSubject,
                const std::function<void(const std::string &one, const std::string &other)> &task) {
    const std::vector<std::string> given = operands.values();
    if (given.size() != 2) {
        throw UsageError(needed);
    }
    const std::string one = engine::absolute_path(given[0]), other = engine::absolute_path(given[1]);
    PathWork work;
    work.one(secondIsSubject ? other : one, [&](const std::string &) { task(one, other); });
    status = work.finish();
}

void add_copy(const Command &ea, int &status) {
    const auto move = std::make_shared<bool>(false);
    const auto full = std::make_shared<bool>(false);
    const Command command = ea.add_command("copy", "Carry the metadata of one file to another");
    const Option files = command.add_operands("SRC", "SRC DST");
    command.add_flag("--move", *move, "remove at the source what was carried");
    command.add_flag("--full-dir", *full, "with what else is in its \"@eaDir\", on FAT too");
    command.set_footer("\nBoth files exist already; their data stay as they are. What DST has of the same\n"
                       "name is replaced: attributes, Finder Info, the resource fork. The rest stays.\n"
                       "A lock comes along, and none is taken away where a file is locked by its mode.\n"
                       "--move leaves attributes that are the source file's own (as on HFS+).\n"
                       "Example:\n"
                       "  vexofileop ea copy photo.jpg /volume2/photo.jpg");
    command.set_work([&status, move, full, files] {
        run_on_two(
            files, status, "a source and a destination are needed", false,
            [&](const std::string &from, const std::string &to) { engine::carry_store(from, to, *move, *full); });
    });
}

void add_rename(const Command &ea, int &status) {
    const Command command = ea.add_command("rename", "Move the metadata after its file was renamed");
    const Option files = command.add_operands("OLD", "OLD NEW");
    command.set_footer("\nWhat is kept under NEW already is replaced where OLD has the same: attributes,\n"
                       "Finder Info with the resource fork, the file's own directory in \"@eaDir\". To a\n"
                       "volume that keeps them in another way nothing is done: carry them with ea copy\n"
                       "while the file is there under both names.\n"
                       "Example:\n"
                       "  mv a.jpg b.jpg && vexofileop ea rename a.jpg b.jpg");
    command.set_work([&status, files] {
        run_on_two(files, status, "the old and the new name are needed", true, engine::rename_store);
    });
}

void add_for_each(const Command &ea, int &status, const char *name, const char *text, const char *footer,
                  const PathWork::Task &task) {
    const Command command = ea.add_command(name, text);
    const PathOperands files(command, "FILE", "FILE...");
    command.set_footer(footer);
    command.set_work([&status, files, task] {
        PathWork work;
        work.each(files.all(), task);
        status = work.finish();
    });
}

} // namespace

void add_ea_store_commands(const Command &ea, int &status) {
    add_copy(ea, status);
    add_rename(ea, status);
    add_for_each(ea, status, "remove", "Remove all metadata of files",
                 "\nThe files themselves stay. For a file that is gone, what it left behind goes.\n"
                 "Example:\n"
                 "  vexofileop ea remove photo.jpg",
                 engine::remove_store);
    add_for_each(ea, status, "repair", "Repair resource files that hold attributes",
                 "\nThe attributes are moved into the attribute stream. A file without a resource\n"
                 "file has nothing to repair.\n"
                 "Example:\n"
                 "  vexofileop ea repair photo.jpg",
                 engine::repair_store);
}

} // namespace tool
