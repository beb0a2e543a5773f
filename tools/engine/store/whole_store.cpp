#include "tools/engine/store/whole_store.h"

#include "ea/ea.h"
#include "platform/sdk.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <climits>

namespace engine {
namespace {

constexpr int kAskForKind = -1;

bool keeps_anything(const std::string &path, int type) {
    char directory[PATH_MAX] = "";
    return store_parts(path, type).any() ||
           (VEXOEADirPath(0, path.c_str(), directory, sizeof directory) == 0 && exists(directory));
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
    check(VEXOEACopy(source.c_str(), destination.c_str(), move ? 1 : 0, fullDirectory ? 1 : 0, kAskForKind, kAskForKind,
                     0, 0),
          "cannot be carried");
}

void rename_store(const std::string &before, const std::string &path) {
    check_there(path);
    check(VEXOEARename(before.c_str(), path.c_str(), kAskForKind, 0), "the metadata cannot be moved");
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
