// The last step of a copy: what was made under a private name gets its own, with what is kept beside it.
//
// A volume renames a file at once; its store is renamed after it, in steps of its own. So that neither of the two is
// ever half of each, a note beside the file tells what is meant while that lasts, and whoever comes after a kill
// finishes it: until the file itself has its name nothing of what stood there is touched. While that lasts the
// directory is locked, so that two commands do not mix what they bring to one name. Where nothing is kept beside either
// there is no step of its own, and no lock.
#pragma once

#include "tools/engine/report/problem.h"
#include "tools/engine/transfer/held_directory.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace engine {

// Whether anything is kept beside an entry, of which there may be none.
bool has_store(const HeldDirectory &directory, const std::string &name);

// Whether what is kept for a name, in a store of its own, gets into the file itself on a volume of that type: then each
// name of the file has it.
bool gets_into_the_file(const HeldDirectory &from, const std::string &name, int type);

struct Placement {
    const HeldDirectory &directory;
    std::string made;      // the private name
    std::string name;      // the one that it is to have
    bool replace = false;  // what stands there goes, with its store
    bool withStore = true; // something may be kept beside it, or beside what stood there
    bool hasStore = false; // it has a store, whatever is seen of that
    bool linked = false;   // it is another name of a file, which may be the very one that stands there
};

// Nothing, with errno, when the entry has not got its name; it is then as it was, and so is what stood there: EEXIST is
// told by the kernel. Else what could not be done for its store, with an empty reason where there is nothing to say.
std::optional<Problem> place(const Placement &placement);

// A renaming within one volume, with what is kept for the entry: it lies beside it, and a note in the new directory
// tells where, from before the entry has its new name until all of it has followed.
struct Renaming {
    const HeldDirectory &from;
    std::string before;
    const HeldDirectory &to;
    std::string name;
    bool replace = false;  // what stands there goes, with its store
    bool withStore = true; // something may be kept for it
    bool awaits = false;   // also what another command is bringing to its place, where the entry itself stands already
};

// Nothing, with errno, when the entry has not got its new name. Else what could not be done for its store, with an
// empty reason where there is nothing to say.
std::optional<Problem> rename_with_store(const Renaming &renaming);

// Removes a source that was copied, with what is kept for it: a note tells of that from before the entry goes, and
// whoever comes next finishes it. `isMeant` is asked last. Nothing, with errno, when the entry is still there, ESTALE
// where `isMeant` said no. Else what could not be removed, with an empty reason where there is nothing to say.
std::optional<Problem> remove_with_store(const HeldDirectory &directory, const std::string &name, bool isDirectory,
                                         const std::function<bool()> &isMeant);

// For an errno of these three, of which EWOULDBLOCK is a directory that somebody else has locked.
Problem problem_of_placing(int number);

// Removes what was made, with its store.
void discard(const HeldDirectory &directory, const std::string &made);

// Finishes or removes what processes that are gone have left in the directory. Answers what stays, since that could not
// be proven of them.
std::vector<std::string> clear_left_overs(const HeldDirectory &directory);

} // namespace engine
