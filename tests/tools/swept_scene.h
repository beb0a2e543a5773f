// The scene of a command that is swept, and what is looked at in it after each run.
#pragma once

#include "tests/faults/system_calls.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/scratch.h"
#include "tests/tools/tool_process.h"

#include <ostream>
#include <string>
#include <vector>

namespace swept {

// A tree with names of one file, a link, stores and attributes, and what some commands need beside it.
class SweptScene {
  public:
    // `volume`: where the copy is to be; empty: where the tree is.
    explicit SweptScene(const std::string &volume = {});
    ~SweptScene();
    SweptScene(const SweptScene &) = delete;
    SweptScene &operator=(const SweptScene &) = delete;

    void run(const kit::Arguments &arguments, int status = 0) const;
    // A second tree that is the same, which no command is asked to touch; made by a program that is none of ours.
    void keep_reference() const;

    // Of the following: empty, or what is wrong.

    // In what the source is not what it was.
    std::string changed() const { return m_before.differenceTo(kit::Fingerprint::of(tree), {"accessed"}); }
    // In what the second is not what the first is: for the tool, and for whom the kernel alone is asked.
    static std::string difference(const std::string &one, const std::string &other);
    std::string different() const { return difference(tree, copy); }
    // Names of what was under way.
    std::string left_over() const;
    static std::string holds(const std::string &path, const std::string &content);
    // What is whole neither in the tree nor in the copy: content, attributes and stores.
    std::string lost_of_both() const;

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", lists = scratch / "lists", reference = scratch / "reference";
    const std::string copy;

  private:
    kit::Fingerprint m_before;
};

struct SweptCommand {
    const char *name;
    kit::Arguments (*prepare)(const SweptScene &);        // what is run, once all that it needs is there
    std::string (*lost)(const SweptScene &);              // at any moment; empty: nothing
    std::string (*undone)(const SweptScene &);            // after success; empty: nothing
    int good = 0;                                         // the status of a run that nothing disturbs
    bool across = false;                                  // the copy is on another volume
    bool moves = false;                                   // what has gone is not there for the same command again
    std::string (*settled)(const SweptScene &) = nullptr; // as `undone`, but not where a call has failed
};

inline void PrintTo(const SweptCommand &command, std::ostream *out) {
    *out << command.name;
}

const std::vector<SweptCommand> &swept_commands();

faults::Outcome supervised(const kit::Arguments &arguments, const faults::Plan &plan);

} // namespace swept
