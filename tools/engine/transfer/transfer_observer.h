// What a copy or a move tells and asks.
#pragma once

#include "tools/engine/report/observer.h"
#include "tools/engine/report/outcome.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace engine {

// A try that failed, after which there is to be another one.
struct Retry {
    const std::string &source, &destination;
    const Problem &problem;
    int number, of; // which of them is next, and how many there are to be at most
    int64_t pause;  // milliseconds before it
};

class TransferObserver : public Observer {
  public:
    // The source is a directory that is carried with everything in it. What becomes of its entries is told next.
    virtual void tree(const std::string &source) = 0;
    // An entry is taken up; a directory where the library copies it as a whole.
    virtual void begins(const std::string &) {}
    // What became of an entry.
    virtual void entry(EntryKind kind, const std::string &source, const Outcome &outcome) = 0;
    // What an entry has lost that was told of before, or is told of next: that names of one file are several now shows
    // only once others of them have arrived.
    virtual void loss(const std::string &, const std::string &, const Loss &) {}
    // So many files and links arrived in a directory of the destination, of which there is nothing to say; of `bytes`
    // together.
    virtual void arrived(const std::string &directory, int files, int64_t bytes) = 0;
    // What stands in a directory of the destination under names of what is under way, by processes of which nobody can
    // tell here whether they are over: those of another machine or container. Of those that are, what may be somebody's
    // own all the same. Told once a directory.
    virtual void stays(const std::string &, const std::vector<std::string> &) {}
    // So many more bytes are done; `newFile`: the first of a file in a tree.
    virtual void progress(int64_t bytes, bool newFile) = 0;
    // The volume of a directory is being written out as a whole, and what came of it.
    virtual void writing_out(const std::string &) {}
    virtual void written_out(const std::string &, const std::optional<Problem> &) {}
    // What failed is to be tried again.
    virtual void retry(const Retry &) {}
    // For Conflict::ask: whether what stands at the destination goes.
    virtual bool may_replace(const std::string &destination) = 0;
};

} // namespace engine
