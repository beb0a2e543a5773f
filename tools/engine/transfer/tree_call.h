// A tree copied by one call of the library, and what that said on the way.
#pragma once

#include "tools/engine/transfer/transfer_observer.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <unordered_set>

namespace engine {

struct TreeCall {
    std::string source = {};                 // as the library was told
    timespec begun = {};                     // by CLOCK_REALTIME_COARSE, as files get their times
    bool inherits = false;                   // what it made may have got ACLs from the directory around it
    int64_t bytes = 0;                       // moved, also of files that failed
    bool stopped = false;                    // the observer has said so once
    std::unordered_set<std::string> refused; // paths that the library has reported, most of them sources

    // Whether `bytes` belong to files that have arrived.
    bool all_arrived() const { return !stopped && refused.empty(); }
};

// With owners, ACLs, times, attributes and stores; an existing file is left alone and reported. Both paths
// have a slash, the caller is root. What the library passes over without a word is for the caller to find. The observer
// is told the progress alone.
TreeCall call_tree_copy(const std::string &source, const std::string &destination, TransferObserver &observer);

} // namespace engine
