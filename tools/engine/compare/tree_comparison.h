// Two files or trees held against each other: everything that the second lacks of the first, whatever their volumes
// keep it in, and what only the second has.
#pragma once

#include "tools/engine/compare/linked_names.h"
#include "tools/engine/losses/loss.h"
#include "tools/engine/report/observer.h"
#include "tools/engine/report/outcome.h"
#include "tools/engine/select/selection.h"
#include "tools/engine/workers/hands.h"

#include <cstdint>
#include <string>

namespace engine {

struct TreeComparisonOptions {
    bool data = true;  // content is read; else sizes and short values decide
    bool times = true; // modification and creation time
    // Names go by the lists beside the entries: an entry of the first is looked for under what the second calls it.
    bool reversibleNames = false;
    Selection selection = {}; // the rest is passed over at both
    bool named = true;        // the selection sees the first's own name at the start of each path of both
    // Where one comparison is of several: the names that all of them meet, for whoever finishes that once they are
    // over.
    LinkedNames *names = nullptr;
};

// Paths are as people know them.
class ComparisonObserver : public Observer {
  public:
    // What `second` lacks of `first`, or has otherwise. Of a directory that is missing nothing is told but itself. That
    // names of one file are several is told once all of them are known.
    virtual void loss(const std::string &first, const std::string &second, const Loss &loss) = 0;
    // An entry that only the second has, with everything in it.
    virtual void extra(const std::string &second, EntryKind kind) = 0;
    // At either: what a command that was stopped has left, by its name. It is not compared.
    virtual void left_over(const std::string &) {}
    // The two are one thing under two names: nothing is compared.
    virtual void same(const std::string &first, const std::string &second) = 0;
    // An entry of the first was compared, and what it lacks has been told; bytes of a regular file.
    virtual void compared(const std::string &first, EntryKind kind, int64_t bytes) = 0;
    // So many more bytes of content are read.
    virtual void progress(int64_t bytes) = 0;
};

// Compares `second` with `first`, both absolute; a slash at the end of a path asks for what a link leads to. Throws
// Failure where one of the two cannot be looked at.
//
// An entry is looked for under the name that the second volume makes of its own: as the FAT family has it, and as a
// volume that does not tell letter cases or forms of letters apart finds it. What belongs to the system or to nobody's
// store is told where the second has not the same. Names of one file that are several at the second are told as
// linked_names.h has it. Directories are held by descriptor, few of them at any depth, and no link is followed.
// Several hands share two trees: what is told of one entry stays together, and the order is any.
void compare_trees(const std::string &first, const std::string &second, const TreeComparisonOptions &options,
                   ComparisonObserver &observer, const Hands &hands = {});

} // namespace engine
