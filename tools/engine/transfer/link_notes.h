// Files of several names that a move takes to another volume. Once a name is gone from the source nothing there shows
// any more that what stands at the destination was one file with the names that are left: a note beside the destination
// keeps that, from before the first name goes until the run is over, for whoever goes on after a kill.
#pragma once

#include "tools/engine/transfer/held_directory.h"
#include "tools/engine/transfer/linked_files.h"
#include "tools/engine/walk/descriptor.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace engine {

class LinkNotes {
  public:
    // One file, as a note has it: `source` and `made` with what tells that either still is the same.
    struct Record {
        uint64_t volume = 0; // of the source, across restarts; 0: its volume has no such number
        struct stat source = {}, made = {};
        std::string path = {}; // of what stands at the destination, absolute
        std::string text() const;
        static Record from(std::string_view text);
    };

    // What goes below `top` from now on, a directory that need not exist yet. What runs that have ended have noted
    // there is claimed in `files`: only notes that this user has written himself, and nobody else could read. `source`:
    // an entry on the volume that is moved from.
    void begin(const std::string &top, const std::string &source, LinkedFiles &files);
    // Where no note can be written (a full volume) the move goes on without it. `durable`: it is on the disk, then.
    void add(const Record &record, bool durable);
    // Removes the notes, unless somebody is to go on with what they tell.
    void end(bool needed);

    // By which a volume is known again; 0: it cannot be.
    static uint64_t number_of_volume(int fd);

  private:
    struct Place {
        std::string top;
        HeldDirectory directory = {};
        std::vector<std::string> earlier = {}; // notes of runs that have ended
        std::string name = {};                 // of the note of this run
        Descriptor file = Descriptor(-1);
    };
    struct Elsewhere {
        uint64_t volume;
        FileNumber file; // as it was numbered before the machine was started again
        LinkedFiles::Made made;
    };
    void read(Place &place, const std::string &name, LinkedFiles &files);

    std::deque<Place> m_places;
    std::vector<Elsewhere> m_elsewhere;
};

} // namespace engine
