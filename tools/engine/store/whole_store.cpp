#include "tools/engine/store/whole_store.h"

#include "ea/ea.h"
#include "platform/sdk.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/store_carry.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <climits>
#include <fmt/format.h>

namespace engine {
namespace {

constexpr int kAskForKind = -1;

bool keeps_anything(const std::string &path, int type) {
    char directory[PATH_MAX] = "";
    return store_parts(path, type).any() ||
           (VEXOEADirPath(0, path.c_str(), directory, sizeof directory) == 0 && exists(directory));
}

bool keeps_directories(StoreKind kind) {
    return kind == StoreKind::ea_directory || kind == StoreKind::file_ea;
}

// Of the directory that holds the file.
int volume_type(const std::string &path) {
    forget_last_error();
    const int type = VEXOGetFSType(parent_of(path).c_str(), 1);
    check(type, "its volume cannot be looked at");
    return type;
}

} // namespace

void carry_store(const std::string &source, const std::string &destination, bool move, bool fullDirectory) {
    check_there(source);
    if (!exists(destination)) {
        throw_errno("the destination cannot be looked at");
    }
    if (same(look_through(source), look_through(destination))) {
        throw Failure("source and destination are one file");
    }
    const int type = volume_type(destination);
    const StoreKind kind = store_kind(type);
    if (kind == StoreKind::none) {
        throw Failure(fmt::format("the destination's volume (type {}) keeps nothing beside a file", type));
    }
    if (kind != StoreKind::native) {
        carry_to_files(source, destination, type, move, fullDirectory);
        return;
    }
    forget_last_error();
    check(VEXOEACopy(source.c_str(), destination.c_str(), move ? 1 : 0, fullDirectory ? 1 : 0, kAskForKind, kAskForKind,
                     0, 0),
          "cannot be carried");
}

void rename_store(const std::string &before, const std::string &path) {
    check_there(path);
    if (before == path) {
        return;
    }
    const int typeBefore = volume_type(before);
    const StoreKind kindBefore = store_kind(typeBefore);
    const StoreKind kind = store_kind(volume_type(path));
    if (!keeps_anything(before, typeBefore)) {
        return;
    }
    if (kind != kindBefore && !(keeps_directories(kind) && keeps_directories(kindBefore))) {
        throw Failure(fmt::format("what was kept in {} has to be converted to {}, which needs the file under its old "
                                  "name: nothing was done",
                                  kind_text(kindBefore), kind_text(kind)));
    }
    check(VEXOEARename(before.c_str(), path.c_str(), kAskForKind, 0), "the metadata cannot be moved");
    if (keeps_anything(before, typeBefore)) {
        throw Failure("not all of the metadata could be moved; the rest is where it was");
    }
}

bool is_part_of_file(const std::string &path) {
    return store_kind(volume_type(path)) == StoreKind::native;
}

void remove_store(const std::string &path) {
    const int type = volume_type(path);
    if (!exists(path) && !keeps_anything(path, type)) {
        throw Failure("there is no such file, and nothing is kept for one");
    }
    check(VEXOEARemove(path.c_str(), type), "the metadata cannot be removed");
}

void repair_store(const std::string &path) {
    check_there(path);
    if (!store_parts(path, VEXOGetFSType(path.c_str(), 1)).resource) {
        return; // nothing that could be broken
    }
    check(VEXOEAFixErrorAD(path.c_str()), "cannot be repaired");
}

} // namespace engine
