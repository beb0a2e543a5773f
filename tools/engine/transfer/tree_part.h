// Entries of a directory that one process gives to another to carry, with both directories open.
#pragma once

#include "tools/engine/workers/crew.h"
#include "tools/engine/workers/pool.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace engine {

// What holds for the whole tree.
struct TreeRequest {
    uint64_t number = 0;   // no other tree of the run has it
    std::string top = {};  // of the source
    bool contents = false; // what that holds, and not itself
    dev_t device = 0;      // of the source
    int sourceType = -1, destinationType = -1;
    bool keepsMac = false;                               // the source's volume may hold what no copy carries
    bool filesBefore = false, directoriesBefore = false; // the run has made some before this tree was begun
};

struct TreePart {
    uint64_t number = 0; // no other part has it
    TreeRequest request = {};
    std::string source = {}, destination = {}; // the two directories
    bool made = false;                         // that one was not there before
    bool hasStore = false;                     // the source holds an "@eaDir"
    bool oneByOne = false;                     // no directory goes by a single call
    std::vector<std::string> names = {};

    std::string text() const;
    static TreePart from(std::string_view text);
};

// How many bytes of names a part has at most, so that it is one message whatever the two paths are.
constexpr size_t kMostOfPart = size_t{16} * 1024;

// Does parts, by whomever, and answers what came of them together: how many entries were left out is what is counted.
class TreeSharer {
  public:
    TreeSharer() = default;
    TreeSharer(const TreeSharer &) = delete;
    TreeSharer &operator=(const TreeSharer &) = delete;
    virtual ~TreeSharer() = default;

    virtual Yield run(const WorkerPool::Source &next) = 0;
};

} // namespace engine
