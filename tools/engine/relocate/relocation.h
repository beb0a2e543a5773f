// Brings a whole directory to another place: copied beside it, compared, put there at once, and only then removed where
// it was, entry by entry. Nothing is emptied before what takes its place stands, and a run that was stopped is finished
// by a second one with the same arguments, from the note that the first has left (see note.h).
#pragma once

#include "tools/engine/losses/loss.h"
#include "tools/engine/report/observer.h"
#include "tools/engine/report/problem.h"

#include <cstdint>
#include <string>

namespace engine {

struct RelocationRequest {
    std::string source, destination; // absolute; the destination is the new path itself
    bool keepSource = false;
    LossSet accepted = {}; // what may be lost: the source goes all the same
    bool specials = false; // pipes, devices and sockets are made anew; else they are lost
};

// What a relocation is going to do, for whoever has to agree to it.
struct RelocationPlan {
    RelocationRequest request;
    std::string staging;            // the private directory that the tree is copied into first
    bool destinationExists = false; // and is removed with everything in it, once the copy stands
    std::string stoppedAt = {};     // an earlier run is finished: where that was stopped, for people
};

// Changes nothing but what an earlier run left empty. Throws InvalidRequest for what cannot be done, would remove what
// is to be kept, or cannot be known.
RelocationPlan plan_relocation(const RelocationRequest &request);

class RelocationObserver : public Observer {
  public:
    // So many more bytes are copied.
    virtual void progress(int64_t bytes) = 0;
    // So many more files, and what else is no directory, are copied.
    virtual void arrived(int64_t files) { (void)files; }
    // Everything is in its place; what is to go is removed.
    virtual void removing() {}
    // The copying is over, however it ended.
    virtual void copied() = 0;
    // An entry that could not be copied, or could not be removed.
    virtual void failed(const std::string &path, const Problem &problem) = 0;
    // What the copy lacks of an entry of the source, or has not as it was.
    virtual void lost(const std::string &source, const std::string &destination, const Loss &loss) = 0;
};

enum class RelocationEnd {
    done,
    cancelled,      // on request, with everything as it was
    not_copied,     // with everything as it was
    unfinished,     // it cannot be known or done what comes next; `problem` says what stands where
    incomplete,     // the copy is in place without some of it; the source stays
    source_remains, // the copy is in place with everything; the source is not removed entirely
    old_remains,    // the copy is in place with everything; what stood there before is not removed entirely
};

struct RelocationResult {
    RelocationEnd end = RelocationEnd::done;
    Problem problem = {};   // of not_copied and unfinished
    int missing = 0;        // losses that were told and not accepted
    int removed = 0;        // entries of the source
    bool resumed = false;   // an earlier run was finished
    bool inPlace = false;   // the copy stands at the destination
    bool noteStays = false; // a further run with the same arguments goes on from here
    std::string aside = {}; // where what is left of the old destination stands; empty: nowhere
};

// Throws InvalidRequest for what has changed since it was planned.
RelocationResult relocate(const RelocationPlan &plan, RelocationObserver &observer);

} // namespace engine
