// A tree cut into shards, each of which is copied by a run of its own, on whatever machine and in whatever order.
#pragma once

#include "tools/engine/report/observer.h"
#include "tools/engine/report/problem.h"
#include "tools/engine/select/selection.h"

#include <cstdint>
#include <string>
#include <vector>

namespace engine {

struct Shard {
    int64_t entries = 0; // of whatever kind
    int64_t bytes = 0;   // of the files, each once
};

struct Division {
    std::vector<Shard> shards;
    int64_t directories = 0; // with the top
    bool whole = false;      // the lists are there; else it was stopped
};

class DivisionObserver : public Observer {
  public:
    // What this holds is in no list.
    virtual void unreadable(const std::string &path, const Problem &problem) = 0;
};

// Writes the lists into the directory `out`, which is made, or is empty: "shard-1" and so on, each with every name
// below `source` that is a shard's, a directory before what it holds; and "directories" with all of them, the top
// being ".", where what a directory holds follows it at once. All names of a file are in one shard. What is kept for an
// entry ("@eaDir", "._name") is in none, for it goes along. The memory that it takes is that of the subdirectories of
// the directories on the way and of the files of several names that have not all been met. Stopped, it leaves nothing.
// What the selection leaves out is in no list: it sees the paths as the lists have them, as a copy of "SOURCE/." does.
// Throws InvalidRequest and Failure, with nothing left either.
Division divide_tree(const std::string &source, const std::string &out, int shards, DivisionObserver &observer,
                     const Selection &selection = {});

} // namespace engine
