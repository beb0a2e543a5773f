// How many processes share the work, and how many that is unless somebody says it.
#pragma once

#include <functional>

namespace engine {

// How many may work at once.
struct Hands {
    int number = 1;
    // Called in each new process. A stop reaches the whole group of processes, and is for the one above to understand:
    // who has signals that ask for one makes the workers deaf to them, so that nothing is left half done.
    std::function<void()> begin = {};
};

} // namespace engine
