// What is asked of a copy or a move.
#pragma once

#include "tools/engine/losses/loss.h"
#include "tools/engine/select/selection.h"
#include "tools/engine/transfer/clock.h"

#include <cstdint>
#include <string>

namespace engine {

enum class Operation { copy, move };

// What to do with a destination that exists. `update`: it stays where it is the same already, else it is replaced.
enum class Conflict { fail, replace, skip, ask, keep_both, update };

// Whether copies share their data with their sources. `automatic`: where that can be and the appliance allows it.
enum class Clone { never, automatic, always };

// What is on the disk before a run ends and before a source goes: `file`: each file with what is kept for it, and each
// directory; `volume`: the volumes that were written to, as a whole.
enum class Sync { none, file, volume };

// What is replaced is kept, with its store: beside what replaces it, under its name with the suffix; or below a
// directory, which a relative path means in that of the destination, where it lies as it lay below that.
struct BackupOptions {
    bool wanted = false;
    std::string suffix = {};
    std::string directory = {};
};

struct TransferOptions {
    Operation operation = Operation::copy;
    Conflict conflict = Conflict::fail;
    bool checksum = false; // Conflict::update: the same is only what has the same content
    Clone clone = Clone::never;
    // What is replaced is written into, so that it stays what its other names are: what fails then has cost it. Without
    // this that is done only where nothing can be made beside it. A move within a volume renames all the same. Not with
    // `verify`, which promises what stood there back.
    bool inPlace = false;
    bool links = false;    // a copy of a symbolic link is a link; else it is followed. A move never follows one.
    bool specials = false; // pipes, devices and sockets are made anew; else they are told as what is lost
    bool hardLinks = true; // names of one file stay that, where the volume can
    bool trees = false;    // directories are carried too, with everything in them
    bool exact = false;    // a directory that is merged into loses the attributes and the store that the source has not
    // Of entries that arrive a number is enough: then a copy need not go through them one by one.
    bool countsAlone = false;
    Selection selection = {}; // the rest is passed over without a word; a move leaves it where it is
    // Names that a volume of the FAT family does not take are kept beside the entries, and those that are kept so come
    // back. Not with Conflict::keep_both, which gives names of its own.
    bool reversibleNames = false;
    LossSet accepted = {}; // what may be lost: a source goes all the same, and an entry has not failed
    bool verify = false;   // each file is read back from its volume and compared before it gets its name
    Sync sync = Sync::none;
    BackupOptions backup = {};
    int64_t bytesPerSecond = 0; // that are written at most, by all of a run; 0: any number
    int retries = 0;            // of an entry that failed for what may pass
    Clock *clock = nullptr;     // for whatever waits; nothing: that of the machine
    // Whether files that arrive are compared with their sources; else the caller does that, and it is no move.
    bool compared = true;
    bool proofs = false; // of each file it is told what its source was when it was proven to have arrived
};

// How names are taken that are made anew below another directory.
struct NamesBelow {
    bool followed = false; // links on the way are, as in any path that people give; else nothing lies behind one
    bool trees = false;    // directories go with everything in them
    bool alone = false;    // else: directories go without that
    // Of `alone`. Directories are made, or gone into, and nothing else of them is carried: somebody does that later,
    // when nobody fills them any more.
    bool unfinished = false;
    bool directoriesAlone = false; // whatever else is named fails
};

} // namespace engine
