#include "tools/engine/store/whole_store.h"

#include "ea/ea.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/store.h"
#include "tools/engine/store/store_carry.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/held_entry.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <array>
#include <cerrno>
#include <climits>
#include <fmt/format.h>
#include <unistd.h>

namespace engine {
namespace {

// Throws Failure where that cannot be known.
StoreParts known_parts(const std::string &path, int type) {
    const StoreParts parts = store_parts(path, type);
    if (parts.trouble != 0) {
        errno = parts.trouble;
        throw_errno("what is kept for it cannot be looked at");
    }
    return parts;
}

bool keeps_anything(const std::string &path, int type) {
    char directory[PATH_MAX] = "";
    return known_parts(path, type).any() ||
           (VEXOEADirPath(0, path.c_str(), directory, sizeof directory) == 0 && exists(directory));
}

bool keeps_directories(StoreKind kind) {
    return kind == StoreKind::ea_directory || kind == StoreKind::file_ea;
}

HeldEntry held_destination(const std::string &path) {
    try {
        return HeldEntry(path);
    } catch (const Failure &failure) {
        throw Failure(fmt::format("the destination {}: {}", displayed(path), failure.what()));
    }
}

// A path by a descriptor of this process, for programs that it starts.
std::string for_others(const std::string &path) {
    constexpr std::string_view own = "/proc/self/";
    std::array<char, 32> process{};
    const ssize_t length = ::readlink("/proc/self", process.data(), process.size() - 1);
    return length <= 0 || !path.starts_with(own) ? path
                                                 : fmt::format("/proc/{}/{}", process.data(), path.substr(own.size()));
}

} // namespace

void carry_store(const std::string &source, const std::string &destination, bool move, bool fullDirectory) {
    const HeldEntry from(source);
    const HeldEntry to = held_destination(destination);
    if (from.status().st_dev == to.status().st_dev && from.status().st_ino == to.status().st_ino) {
        throw Failure("source and destination are one file");
    }
    const int type = volume_type(to);
    if (store_kind(type) == StoreKind::none) {
        throw Failure(fmt::format("the destination's volume (type {}) keeps nothing beside a file", type));
    }
    carry_store_apart(from, to, move, fullDirectory);
}

void rename_store(const std::string &before, const std::string &path) {
    const HeldEntry to(path);
    if (before == path) {
        return;
    }
    const HeldEntry from(before, HeldEntry::Needs::name);
    const int typeBefore = volume_type_beside(from);
    const int type = volume_type_beside(to);
    const StoreKind kindBefore = store_kind(typeBefore);
    const StoreKind kind = store_kind(type);
    if (!keeps_anything(from.path(), typeBefore)) {
        return;
    }
    if (kind != kindBefore && !(keeps_directories(kind) && keeps_directories(kindBefore))) {
        throw Failure(fmt::format("what was kept in {} has to be converted to {}, which needs the file under its old "
                                  "name: nothing was done",
                                  kind_text(kindBefore), kind_text(kind)));
    }
    forget_last_error();
    // To another volume the library has /bin/mv do it.
    check(VEXOEARename(for_others(from.path()).c_str(), for_others(to.path()).c_str(), type, 0),
          "the metadata cannot be moved");
    if (keeps_anything(from.path(), typeBefore)) {
        throw Failure("not all of the metadata could be moved; the rest is where it was");
    }
}

void remove_store(const std::string &path) {
    const HeldEntry entry(path, HeldEntry::Needs::entry_or_nothing);
    const int type = volume_type_beside(entry);
    if (store_kind(type) == StoreKind::native) {
        throw Failure("its volume keeps them as the file's own attributes; remove those by name (ea rm)");
    }
    if (!entry.is_there() && !keeps_anything(entry.path(), type)) {
        throw Failure("there is no such file, and nothing is kept for one");
    }
    forget_last_error();
    entry.check_still();
    check(VEXOEARemove(entry.path().c_str(), type), "the metadata cannot be removed");
}

void repair_store(const std::string &path) {
    const HeldEntry entry(path);
    if (!known_parts(entry.path(), volume_type(entry)).resource) {
        return; // nothing that could be broken
    }
    forget_last_error();
    check(VEXOEAFixErrorAD(entry.path().c_str()), "cannot be repaired");
}

} // namespace engine
