// What a plan needs on a volume, and what is free there.
#pragma once

#include <cstdint>
#include <optional>
#include <sys/stat.h>

namespace engine {

struct Room {
    int64_t bytes = 0;
    int64_t inodes = 0;
};

struct FreeRoom {
    std::optional<int64_t> bytes, inodes;           // nothing: the volume does not count them
    std::optional<int64_t> quotaBytes, quotaInodes; // of this user, where there is a quota that binds
    bool readOnly = false;
    int64_t block = 4096; // what the smallest file takes
};

// Of the volume of an open directory (O_PATH too), for this user.
FreeRoom free_room(int directory);

// Bytes that a copy of a file takes: its data alone where the volume keeps holes.
int64_t bytes_for(const struct stat &file, int64_t block, bool keepsHoles);

} // namespace engine
