// One of two entries that are compared, named so that nobody can put another directory in between.
#pragma once

#include "tools/engine/volume/volume_traits.h"

#include <cstdint>
#include <string>
#include <time.h>

namespace engine {

// What a comparison has to know of the volume of a directory: asked once, for all entries in it.
struct VolumeFacts {
    int type = -1; // the platform's code; below 0: it cannot be told
    StoreKind store = StoreKind::none;
    bool owners = true;         // entries have an owner, a group and permissions of their own
    uint32_t magic = 0;         // of the file system, by the kernel
    int64_t timeGrain = 1;      // nanoseconds between two modification times; 0: to be found out from an entry's times
    bool creationTimes = false; // the kernel has one of every entry; else it is the oldest of the others, or a record's
    bool appendOnly = false;    // names can be given in the directory, and none taken away
    bool noDirectory = false;   // a walk knows that there is no "@eaDir" beside the entries
    bool noForks = false;       // it shows no resource forks, whatever kind of store is to be read there
    bool fatTimes = false;    // the driver tells times that it keeps only until it forgets the entry: see keeps_time()
    uint64_t largestFile = 0; // a file of this size, and a larger one, is too large; 0: no limit is known
};

// Asks for the volume of an open directory. `type`: the code where the caller knows it; -1: asked for here, by the path
// that the kernel gives for the directory, since an override of types goes by the text of paths. `noDirectory` is
// found out, too.
VolumeFacts volume_facts(int directory, int type = -1);

// Whether a modification time is there after the volume is mounted again. FAT and exFAT have none before 1980 and none
// after 2107; the kernel says so at once, a driver that is a program only then.
bool keeps_time(const VolumeFacts &volume, const timespec &time);

struct Side {
    int directory;    // open, for whatever purpose (O_PATH too); stays the caller's
    std::string name; // of an entry in it; a symbolic link is the entry itself
    VolumeFacts volume;

    // What the library is given.
    std::string path() const { return "/proc/self/fd/" + std::to_string(directory) + "/" + name; }
};

} // namespace engine
