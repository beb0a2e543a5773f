// Where volumes are mounted, as the kernel tells it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace engine {

struct Mount {
    uint64_t id = 0;
    std::string device = {}; // "8:1"
    std::string root = {};   // the part of the volume that is mounted: "/" for all of it
    std::string place = {};  // where
};

// All that this process sees. Throws Failure when the table cannot be read.
std::vector<Mount> mount_table();

// Whether the open directory is the top of another volume than the one that it was opened in, or of a part of the same
// one that is mounted there.
bool is_mount(int above, int directory);

} // namespace engine
