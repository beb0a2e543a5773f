// What is kept beside an entry takes room on the volume that it goes to.
#pragma once

#include "tools/engine/plan/rehearsal.h"
#include "tools/engine/plan/room.h"

namespace engine {

struct StoreRoom {
    Room room = {};
    int64_t names = 0;      // bytes of those in "@eaDir"
    bool directory = false; // it lies in an "@eaDir", which does not count here
    bool empty = false;     // a directory brings an "@eaDir" with nothing in it, which does not count either
};

// What is kept for an entry, as a copy of it on the volume of the rehearsal has it.
StoreRoom room_of_store(const Side &source, const Rehearsal &there, bool isDirectory);

// What a store that stands there takes, without what lies in a directory of its own.
Room room_of_parts(const Side &entry, int64_t block);

} // namespace engine
