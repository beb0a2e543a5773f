// A comparison by several processes: directories are shared among them, and slices of large ones. What is told comes
// from one of them, and names of one file are known to that one.
#pragma once

#include "tools/engine/compare/linked_names.h"
#include "tools/engine/compare/tree_comparison.h"
#include "tools/engine/workers/crew.h"
#include "tools/engine/workers/hands.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace engine {

// Entries of two directories that are open.
struct ComparisonJob {
    enum class Kind : uint8_t {
        tops,        // two entries that were named, and everything in them
        entries,     // entries that are at both, and what is in them
        directories, // directories at both that were compared themselves: what is in them
    };
    Kind kind = Kind::tops;
    std::string path = {}, otherPath = {};                       // of the two directories
    std::vector<std::pair<std::string, std::string>> names = {}; // in the one and in the other
    std::string top = {};                                        // what the selection goes by
    dev_t device = 0;                                            // of the first top

    std::string text() const;
    static ComparisonJob from(std::string_view text);
    // How many bytes of a text a pair of names takes, at most.
    static size_t size_of(const std::pair<std::string, std::string> &names);
};

// What a worker does with a job.
using CompareJob = std::function<void(Job job, ComparisonObserver &observer, Crew &crew)>;

// False, with errno: there is no process to do it. `names`: of several comparisons; else all are told.
bool share_comparison(Job job, const Hands &hands, ComparisonObserver &observer, LinkedNames *names,
                      const CompareJob &compare);

// In a worker: of a file with several names, whether the two were compared under another one.
bool ask_for_links(Crew &crew, const LinkedName &name);
// In a worker: what is begun now.
void begin_pair(Crew &crew, const std::string &path, const std::string &otherPath);

} // namespace engine
