// A tree copied by one call of the library, and what that said on the way.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>

namespace tool {

struct TreeCallHooks {
    std::function<void(int64_t bytes, bool newFile)> progress; // so many more bytes; `newFile`: the first of a file
    std::function<bool()> stopped;                             // asked before each entry and each block
};

struct TreeCall {
    int64_t bytes = 0;                       // moved, also of files that failed
    bool stopped = false;                    // `stopped` has said so once
    std::unordered_set<std::string> refused; // paths that the library has reported, most of them sources

    // Whether `bytes` belong to files that have arrived.
    bool all_arrived() const { return !stopped && refused.empty(); }
};

// With owners, ACLs, times, attributes and stores; an existing file is left alone and reported. Both paths are
// absolute, the caller is root. What the library passes over without a word is for the caller to find.
TreeCall call_tree_copy(const std::string &source, const std::string &destination, const TreeCallHooks &hooks);

} // namespace tool
