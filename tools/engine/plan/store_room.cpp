#include "tools/engine/plan/store_room.h"

#include "ea/ea.h"
#include "tools/engine/compare/entry_view.h"
#include "tools/engine/compare/kept.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"

#include <climits>
#include <fcntl.h>
#include <sys/stat.h>

namespace engine {
namespace {

constexpr int64_t kNameBytes = 40; // of a short one in "@eaDir", with what a directory keeps beside it

int64_t whole(int64_t bytes, int64_t block) {
    return (bytes + block - 1) / block * block;
}

void add_file(Room &room, int64_t size, int64_t block) {
    room.bytes += whole(size, block);
    ++room.inodes;
}

// The sizes of the files of a store, as the volume of the entry keeps it.
std::vector<int64_t> sizes_of_parts(const Side &entry) {
    std::vector<int64_t> sizes;
    struct stat itself {};
    // A link has no store, and to ask for the name of one would follow it, which leaves a trace.
    if (::fstatat(entry.directory, entry.name.c_str(), &itself, AT_SYMLINK_NOFOLLOW) != 0 || S_ISLNK(itself.st_mode)) {
        return sizes;
    }
    char place[PATH_MAX] = "";
    const std::string path = entry.path();
    const auto look = [&](int result) {
        struct stat found {};
        if (result == 0 && ::lstat(place, &found) == 0 && S_ISREG(found.st_mode)) {
            sizes.push_back(found.st_size);
        }
    };
    if (entry.volume.store == StoreKind::apple_double) {
        look(VEXOEAADPath(path.c_str(), place, sizeof place));
    } else if (entry.volume.store != StoreKind::none && !entry.volume.noDirectory) {
        look(VEXOEAPathNoADFS(1, path.c_str(), "VexoEAStream", place, sizeof place));
        look(VEXOEAPathNoADFS(1, path.c_str(), "VexoResource", place, sizeof place));
    }
    return sizes;
}

// A "._" file becomes the files of an "@eaDir".
std::vector<int64_t> sizes_apart(const Side &entry, int64_t size) {
    std::vector<int64_t> sizes;
    try {
        EntryView view(entry);
        view.pin();
        const StoreContents &contents = view.contents();
        if (!contents.attributes().empty()) {
            sizes.push_back(size - static_cast<int64_t>(contents.fork_size()));
        }
        if (!contents.finder_info().empty() || contents.fork_size() > 0) {
            sizes.push_back(static_cast<int64_t>(contents.fork_size()) + 1);
        }
    } catch (const Failure &) {
        sizes = {size}; // what cannot be read is told elsewhere
    }
    return sizes;
}

// A directory that services keep for an entry, with everything in it.
void add_tree(int above, const std::string &name, const Rehearsal &there, Room &room, int depth) {
    struct stat found {};
    if (depth > kDeepestKept || ::fstatat(above, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
        return;
    }
    const int64_t block = there.room().block;
    if (!S_ISDIR(found.st_mode)) {
        if (S_ISREG(found.st_mode)) {
            add_file(room, found.st_size, block);
        } else if (S_ISLNK(found.st_mode)) {
            ++room.inodes;
        }
        return;
    }
    room.bytes += there.directory_bytes();
    ++room.inodes;
    const Descriptor opened = open_directory(above, name);
    for (const std::string &inner : names_in(opened.get()).value_or(std::vector<std::string>())) {
        if (!is_left_over(inner)) {
            add_tree(opened.get(), inner, there, room, depth + 1);
        }
    }
}

KeptPlace place_of(const Side &entry, Kept what) {
    try {
        return kept_place(entry, what);
    } catch (const Failure &) {
        return {};
    }
}

} // namespace

Room room_of_parts(const Side &entry, int64_t block) {
    Room room;
    for (const int64_t size : sizes_of_parts(entry)) {
        add_file(room, size, block);
    }
    return room;
}

StoreRoom room_of_store(const Side &source, const Rehearsal &there, bool isDirectory) {
    StoreRoom all;
    const int64_t block = there.room().block;
    const StoreKind kind = there.volume().store;
    std::vector<int64_t> sizes = there.takes_stores(source) ? sizes_of_parts(source) : std::vector<int64_t>();
    const bool inFiles = kind == StoreKind::ea_directory || kind == StoreKind::file_ea;
    if (!sizes.empty() && source.volume.store == StoreKind::apple_double && inFiles) {
        sizes = sizes_apart(source, sizes.front());
    }
    int64_t sum = 0;
    for (const int64_t size : sizes) {
        sum += size;
        if (inFiles) {
            add_file(all.room, size, block);
            all.names += kNameBytes + static_cast<int64_t>(source.name.size());
            all.directory = true;
        }
    }
    if (kind == StoreKind::apple_double && !sizes.empty()) {
        add_file(all.room, sum, block);
    } else if (kind == StoreKind::native) {
        all.room.bytes += whole(sum, block);
    }
    if (!there.takes_kept() || source.volume.store == StoreKind::none) {
        return all;
    }
    if (const KeptPlace own = source.volume.noDirectory ? KeptPlace{} : place_of(source, Kept::own); own.there) {
        add_tree(own.parent.get(), own.name, there, all.room, 0);
        all.names += kNameBytes + static_cast<int64_t>(source.name.size());
        all.directory = true;
    }
    all.empty = isDirectory && place_of(source, Kept::empty_store).there;
    return all;
}

} // namespace engine
