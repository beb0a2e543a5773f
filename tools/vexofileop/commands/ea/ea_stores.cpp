// vexofileop ea copy, rename, remove and repair: what the library does with everything that a file has in its store.
#include "tools/vexofileop/commands/ea/ea_commands.h"

#include "ea/ea.h"
#include "platform/sdk.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/paths.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/path_work.h"

#include <climits>
#include <memory>
#include <sys/stat.h>

namespace tool {
namespace {

constexpr int kAskForKind = -1;

bool exists(const char *path) {
    struct stat found {};
    return ::lstat(path, &found) == 0;
}

void add_copy(const Command &ea, int &status) {
    const auto move = std::make_shared<bool>(false);
    const auto full = std::make_shared<bool>(false);
    const Command command = ea.add_command("copy", "Carry the metadata of one file to another");
    const Option files = command.add_operands("SRC", "SRC DST");
    command.add_flag("--move", *move, "remove at the source what was carried");
    command.add_flag("--full-dir", *full, "with what else is in its \"@eaDir\", on FAT too");
    command.set_footer("\nBoth files exist already; their data stay as they are. What DST has of the same\n"
                       "name is replaced.\n"
                       "Example:\n"
                       "  vexofileop ea copy photo.jpg /volume2/photo.jpg");
    command.set_work([&status, move, full, files] {
        const std::vector<std::string> given = files.values();
        if (given.size() != 2) {
            throw UsageError("a source and a destination are needed");
        }
        const std::string to = engine::absolute_path(given[1]);
        PathWork work;
        work.one(given[0], [&](const std::string &path) {
            engine::check_there(path);
            struct stat found {};
            if (::lstat(to.c_str(), &found) != 0) {
                engine::throw_errno("the destination cannot be looked at");
            }
            engine::check(
                VEXOEACopy(path.c_str(), to.c_str(), *move ? 1 : 0, *full ? 1 : 0, kAskForKind, kAskForKind, 0, 0),
                "cannot be carried");
        });
        status = work.finish();
    });
}

void add_rename(const Command &ea, int &status) {
    const Command command = ea.add_command("rename", "Move the metadata after its file was renamed");
    const Option files = command.add_operands("OLD", "OLD NEW");
    command.set_footer("\nWhat is kept under NEW already is replaced where OLD has the same: attributes,\n"
                       "Finder Info with the resource fork, the file's own directory in \"@eaDir\".\n"
                       "Example:\n"
                       "  mv a.jpg b.jpg && vexofileop ea rename a.jpg b.jpg");
    command.set_work([&status, files] {
        const std::vector<std::string> given = files.values();
        if (given.size() != 2) {
            throw UsageError("the old and the new name are needed");
        }
        const std::string from = engine::absolute_path(given[0]);
        PathWork work;
        work.one(given[1], [&](const std::string &path) {
            engine::check_there(path);
            engine::check(VEXOEARename(from.c_str(), path.c_str(), kAskForKind, 0), "the metadata cannot be moved");
        });
        status = work.finish();
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

bool keeps_anything(const std::string &path, int type) {
    char directory[PATH_MAX] = "";
    return engine::store_parts(path, type).any() ||
           (VEXOEADirPath(0, path.c_str(), directory, sizeof directory) == 0 && exists(directory));
}

// The file itself may be gone, which leaves what was kept beside it.
void remove_all(const std::string &path) {
    engine::forget_last_error();
    const int type = VEXOGetFSType(engine::parent_of(path).c_str(), 1);
    engine::check(type, "its volume cannot be looked at");
    if (engine::store_kind(type) == engine::StoreKind::native) {
        throw engine::Failure("its volume keeps them as the file's own attributes; remove those by name (ea rm)");
    }
    if (!exists(path.c_str()) && !keeps_anything(path, type)) {
        throw engine::Failure("there is no such file, and nothing is kept for one");
    }
    engine::check(VEXOEARemove(path.c_str(), type), "the metadata cannot be removed");
}

void repair(const std::string &path) {
    engine::check_there(path);
    if (!engine::store_parts(path, VEXOGetFSType(path.c_str(), 1)).resource) {
        return; // nothing that could be broken
    }
    engine::check(VEXOEAFixErrorAD(path.c_str()), "cannot be repaired");
}

} // namespace

void add_ea_store_commands(const Command &ea, int &status) {
    add_copy(ea, status);
    add_rename(ea, status);
    add_for_each(ea, status, "remove", "Remove all metadata of files",
                 "\nThe files themselves stay. For a file that is gone, what it left behind goes.\n"
                 "Example:\n"
                 "  vexofileop ea remove photo.jpg",
                 remove_all);
    add_for_each(ea, status, "repair", "Repair resource files that hold attributes",
                 "\nThe attributes are moved into the attribute stream. A file without a resource\n"
                 "file has nothing to repair.\n"
                 "Example:\n"
                 "  vexofileop ea repair photo.jpg",
                 repair);
}

} // namespace tool
