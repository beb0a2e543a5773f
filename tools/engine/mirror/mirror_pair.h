// Two directories of which the one is to become equal to the other, or to hold a backup of it.
#pragma once

#include "tools/engine/report/outcome.h"
#include "tools/engine/transfer/transfer_options.h"

#include <string>

namespace engine {

// Two directories as a mirror takes them: absolute, and no symbolic links. Throws InvalidRequest where the first is
// none, or the two are one, or one lies in the other, by whatever names, or a volume that is mounted in one of them
// leads to the other. `oneFileSystem`: in the first, other volumes are not gone into.
struct MirrorPair {
    // `harm`: what would come of directories that both of them lead to.
    MirrorPair(const std::string &first, const std::string &second, bool oneFileSystem,
               const char *harm = "what is removed from the one would go from the other");
    // Why what is kept below a directory could take the place of what is mirrored; empty: it could not.
    std::string refusal_of_backups(const BackupOptions &backup) const;
    std::string source, destination;
    bool exists; // the destination
};

// Whether the path is the top or lies below it, by its name alone.
bool lies_below(const std::string &path, const std::string &top);

// What stands in the way of an entry, and goes before that can be copied.
bool is_in_the_way(EntryKind kind, const std::string &destination);

// Whether what became of an entry keeps a mirror from removing anything: it is not known to be there, or was not read.
bool is_kept_back(const Outcome &outcome);

} // namespace engine
