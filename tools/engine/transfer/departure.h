// The times of a directory that a move empties. They are its own no more once the first entry has left it, and its
// copy has them when the last one has arrived. Until then a note beside the copy keeps them, for whoever goes on after
// a kill.
#pragma once

#include "tools/engine/transfer/held_directory.h"

#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

namespace engine {

struct Departure {
    std::string note = {};   // its name
    ino_t inode = 0;         // of the source directory
    std::string source = {}; // where that lies, as the kernel tells it
    timespec accessed = {}, modified = {};

    bool is_of(const HeldDirectory &directory) const;
    // The directory is gone, or another one has its name: nobody goes on.
    bool is_over() const;
};

// Writes such a note and answers its name; empty where none can be written, as on a full volume. `before`: what the
// directory was before anything left it.
std::string note_departure(const HeldDirectory &beside, const HeldDirectory &source, const struct stat &before);

// Those that processes which do not run any more have left there. Only what this user has written himself counts.
std::vector<Departure> departures_in(const HeldDirectory &directory);

bool is_departure(std::string_view privateName);

// Gives a directory that stays at the source its times back, so that the next run finds them: unless somebody has put
// something else into it meanwhile. `names`: what it held when this run came. `left`: an earlier run has taken some of
// it.
void keep_times(const HeldDirectory &source, const struct stat &before, const std::vector<std::string> &names,
                bool left);

} // namespace engine
