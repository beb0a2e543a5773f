// Brings a whole directory to another place: copied, put there at once, compared, and only then removed where it was.
#pragma once

#include "tools/engine/report/observer.h"
#include "tools/engine/report/problem.h"

#include <cstdint>
#include <string>

namespace engine {

struct RelocationRequest {
    std::string source, destination; // absolute; the destination is the new path itself
    bool keepSource = false;
};

// What a relocation is going to do, for whoever has to agree to it.
struct RelocationPlan {
    RelocationRequest request;
    std::string staging;            // the directory that the tree is copied into first
    bool stagingExists = false;     // and is emptied
    bool destinationExists = false; // and is removed with everything in it
};

// Changes nothing. Throws InvalidRequest for what cannot be done, or would remove what is to be kept.
RelocationPlan plan_relocation(const RelocationRequest &request);

class RelocationObserver : public Observer {
  public:
    // So many more bytes are copied.
    virtual void progress(int64_t bytes) = 0;
    // The copying is over, however it ended.
    virtual void copied() = 0;
    // An entry that could not be copied, or that the copy lacks, or that could not be removed.
    virtual void failed(const std::string &path, const Problem &problem) = 0;
};

enum class RelocationEnd {
    done,
    cancelled,     // on request, with everything as it was
    not_copied,    // with the source as it was
    incomplete,    // the copy is in place without some entries; the source stays
    source_remains // the copy is in place with everything; the source could not be removed entirely
};

struct RelocationResult {
    RelocationEnd end = RelocationEnd::done;
    Problem problem = {};         // of not_copied
    bool destinationLost = false; // of not_copied: what stood at the destination is gone
    int missing = 0;              // of incomplete: entries
    int removed = 0;              // of source_remains: entries
};

RelocationResult relocate(const RelocationPlan &plan, RelocationObserver &observer);

} // namespace engine
