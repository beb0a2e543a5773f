// How many processes share the work, and how many that is unless somebody says it.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace engine {

// How many may work at once.
struct Hands {
    int number = 1;
    // Called in each new process. A stop reaches the whole group of processes, and is for the one above to understand:
    // who has signals that ask for one makes the workers deaf to them, so that nothing is left half done.
    std::function<void()> begin = {};
    // Called in the one above, of each process that has begun, and of each before somebody else may get its number. No
    // signal comes between a beginning and the telling of it.
    std::function<void(pid_t)> started = {}, ends = {};
};

// How many are usual for a request that goes through the trees `sources` and writes to `destination` (empty: nowhere):
// as many as there are processors for this process, eight at most; one where there is little to do, and where a disk
// turns, whose head would go from one worker's place to the other's. Arrays of several such disks that hold both sides
// serve several as well as one.
int usual_hands(const std::vector<std::string> &sources, const std::string &destination,
                const std::string &sysfs = "/sys");

} // namespace engine
