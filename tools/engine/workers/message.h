// The first byte of each message between a worker and the one above, and what follows it.
#pragma once

#include <cstdint>

namespace engine {

enum class Word : uint8_t {
    // From a worker. `give` and `done` have no answer, each other has one.
    give, // group, text, with files: a job for whoever has time
    done, // whole, count: the job that was begun last
    lost, // text: the same, which has failed for that reason
    wait, // group, others: for the end of a group, or for a job meanwhile; `others` is 0 where only one of that group
          // will do
    hear, // the ring is full, or something in it cannot wait
    ask,  // text
    // To a worker.
    job,       // text, with files
    collected, // whole, count: the group is at its end
    heard,
    answer, // text
};

} // namespace engine
