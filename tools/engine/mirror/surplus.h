// What a directory has that the one it is to be equal to has not, and its removal.
//
// Two directories are gone through side by side, by descriptor, and no link is followed. An entry of the second is for
// the one of the first whose name has become its own there: as the FAT family has it, and as a volume that does not
// tell letter cases or forms of letters apart finds it. Every other one is removed with what is kept for it, and so is
// what is kept for nobody. What is the system's stays, and so does what a selection by names leaves out, unless that is
// to go, too; choosing by size, time and archive bit says what is copied, and removes nothing.
//
// With backups what is removed gets another name instead, as what a copy replaces does. Older backups stay where they
// are, and so does their directory; directories are removed all the same once nothing is left in them. What belongs to
// no entry cannot be kept so, and stays.
//
// What lies on a volume that is mounted in the second stays, unless the first has a volume mounted there as well.
#pragma once

#include "tools/engine/remove/tree_removal.h"
#include "tools/engine/select/selection.h"
#include "tools/engine/transfer/transfer_options.h"

#include <cstdint>
#include <optional>
#include <string>

namespace engine {

enum class Surplus {
    extra,    // what the first has not
    obstacle, // what is a directory where the first has none, the other way round, or special where the first is not
};

struct SurplusOptions {
    Selection selection = {};
    bool leftOutToo = false; // what the selection leaves out by its name is removed, too
    bool specials = false;   // special files of the first are copied
    bool rehearsal = false;  // nothing is removed: told is what would be
    // Names go by the lists beside the entries, which stay, and lose what names nothing any more.
    bool reversibleNames = false;
    bool sync = false; // those lists are on the disk before they take the place of the old ones
    BackupOptions backup = {};
};

// Paths are as people know them.
class SurplusObserver : public Observer {
  public:
    // As of a removal. What was skipped is a volume that is mounted there, or what another process may have under way,
    // with a problem that says so.
    virtual void entry(const std::string &path, mode_t mode, Status status, const Problem *problem) = 0;
    // What is told next has become a backup, of that path.
    virtual void kept(const std::string &backup) = 0;
    // Asked before each step. Of an obstacle that is a directory it is asked of everything in it first, with how many
    // entries would have gone before, and once more, without, when the turn of each has come: it goes as a whole or not
    // at all, which entry() tells as a failure.
    virtual bool may_remove(const std::string &path, RemovalQuestion question, std::optional<int64_t> ahead) = 0;
    // Nothing is removed in a directory that cannot be read or is not there any more on one of the sides.
    virtual void unreadable(const std::string &path, const Problem &problem) = 0;
};

// Both absolute, and directories. The times of directories in which something was removed are put back.
//
// An obstacle goes only when all that is to stand in its place can be opened for reading.
void remove_surplus(const std::string &first, const std::string &second, Surplus kind, const SurplusOptions &options,
                    SurplusObserver &observer);

// Whether the directory holds an entry that the selection takes by its name. Nothing, with errno: it cannot be read.
std::optional<bool> holds_anything(const std::string &directory, const Selection &selection);

} // namespace engine
