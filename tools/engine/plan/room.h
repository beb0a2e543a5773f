// What a plan needs on a volume, and what is free there.
#pragma once

#include "tools/engine/compare/side.h"

#include <cstdint>
#include <optional>
#include <sys/stat.h>
#include <vector>

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

constexpr int kProjectQuota = 2; // beside USRQUOTA and GRPQUOTA, which older headers have alone

// One that binds this user in a directory: its own, that of the group which new entries get, or that of the directory's
// project.
struct Quota {
    int kind;
    uint32_t id;
    std::optional<int64_t> bytes, inodes; // what it leaves
    int refusal;                          // the errno of who wants more
};

std::vector<Quota> quotas_in(int directory);

// The project that new entries of an open directory belong to, and none but its own entries are renamed or linked into
// it; 0: there is no such rule.
uint32_t heir_project(int directory);

// Whether a copy of a file that is no clone keeps the holes of this one. Where they are less than a block nobody looks
// for them, and all of it is written.
bool copies_holes(const struct stat &file);

// Bytes that a copy of a file takes: its data alone where the volume keeps holes.
int64_t bytes_for(const Side &source, const struct stat &file, int64_t block, bool keepsHoles);

} // namespace engine
