// What a copy or a move is going to do, without doing it: every entry with what becomes of it, what it would lose, and
// what room all of it needs.
//
// Of the two trees nothing changes, and no file of the source is read, so that its access times stay (those of
// directories too where this user may look without leaving one: the owner and root). A link whose access time would
// change is not read: one of the same length and times is the same. A link that is followed, as a copy without trees
// does, has its access time from that.
#pragma once

#include "tools/engine/losses/loss.h"
#include "tools/engine/plan/room.h"
#include "tools/engine/report/observer.h"
#include "tools/engine/report/outcome.h"
#include "tools/engine/transfer/transfer_options.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace engine {

enum class Deed {
    make,    // a copy where nothing stands
    replace, // a copy in the place of what stands there
    merge,   // a directory into one that stands there
    rename,  // a move within a volume, with everything in it
    skip,
    fail,
};

struct PlannedEntry {
    EntryKind kind = EntryKind::other;
    std::string source, destination = {}; // as people know them
    Deed deed = Deed::make;
    int64_t bytes = 0;
    bool cloned = false;
    bool same = false;       // of skip: it stands there already
    bool linked = false;     // becomes another name of what an earlier one has become
    bool inPlace = false;    // of replace: what stands there is written into
    int64_t oldNames = 0;    // of replace: other names of what stands there, which keep its content
    std::string backup = {}; // where what it replaces is kept; empty: nowhere
    // Of a directory: only gone into for what a move takes out of it, or not got to the end of by a run that stops
    // itself.
    bool uncounted = false;
    bool sourceStays = false; // of a move: at both places
    bool sourceGoes = false;  // of a move, of skip: since it is the same, the source is removed all the same
    std::vector<Loss> losses = {};
    std::optional<Problem> problem = {}; // of fail, and of skip where that needs words
};

class PlanObserver : public Observer {
  public:
    // The source is a directory that is carried with everything in it.
    virtual void tree(const std::string &source) = 0;
    virtual void entry(const PlannedEntry &planned) = 0;
    // What an entry would lose that was told of before, or is told of next: that names of one file become several shows
    // only once others of them are met.
    virtual void loss(const std::string &, const std::string &, const Loss &) {}
};

// On one volume of a destination, or in one project there.
struct VolumePlan {
    std::string directory; // the one that was asked
    Room needed = {};      // at most at one time
    FreeRoom free = {};
    bool probed = false;
    uint32_t project = 0; // other than 0: of the directory's project, for its quota alone
};

struct PlanOptions {
    TransferOptions transfer;
    bool fresh = false; // what stands at the destination of a tree goes as a whole, once a copy stands beside it
    bool probe = true;  // something may be made in directories of the destination, and is removed again
    // With TransferOptions::checksum, too, no link is read whose access time would change by that: one of the same
    // length and times is taken for the same then, as it is without.
    bool traceless = false;
};

class Planner {
  public:
    // The observer outlives this. Conflict::ask is answered by yes.
    Planner(const PlanOptions &options, PlanObserver &observer);
    ~Planner();

    // One request after the other, as for a Transfer: both paths absolute; a slash at the end of the source asks for a
    // directory.
    void run(const std::string &source, const std::string &destination);

    // A name that is made anew below `top`, with the directories on its way, as by Transfer::run_below().
    void run_below(const std::string &base, const std::string &top, const std::string &name, const NamesBelow &how);

    // No more requests come: what only all names of a file show is told.
    void finish();

    const std::vector<VolumePlan> &volumes() const;

  private:
    class Walk;
    std::unique_ptr<Walk> m_walk;
};

} // namespace engine
