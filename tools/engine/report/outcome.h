// What became of one entry.
#pragma once

#include "tools/engine/losses/loss.h"
#include "tools/engine/report/problem.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace engine {

enum class EntryKind { file, link, directory, other };

constexpr EntryKind entry_kind(mode_t mode) {
    return S_ISDIR(mode)   ? EntryKind::directory
           : S_ISLNK(mode) ? EntryKind::link
           : S_ISREG(mode) ? EntryKind::file
                           : EntryKind::other;
}

enum class Status { done, skipped, failed, cancelled };

// Of a copy or a move.
struct Outcome {
    Status status = Status::done;
    std::string destination; // where the file is now, which may be another name than asked for
    int64_t bytes = 0;       // size of the file
    bool cloned = false;
    bool synced = false;  // it is on the disk, as far as the kernel knows
    bool same = false;    // it stood there already
    bool linked = false;  // another name of what an earlier one has become; nothing was copied
    bool inPlace = false; // written into what stood there, which has kept its names
    // Of what was replaced: which file it was, how many other names it had left then, which keep its content, and some
    // of those, in the same directory.
    std::pair<dev_t, ino_t> old = {};
    int64_t oldNames = 0;
    std::vector<std::string> oldNamesKnown;
    std::string backup = {};  // where what it replaced is kept; empty: nowhere
    bool sourceStays = false; // of a move that is done: it is at both places
    std::vector<Loss> losses; // what the destination has not got, or not as it was
    // Of a file that is done, or was the same already, where that is asked for: what the source was when it was proven
    // to be there, and a mark of what was kept beside it then.
    std::optional<struct stat> proven = {};
    uint64_t provenStore = 0;
    std::optional<Problem> warning; // done, but not as it should be
    std::optional<Problem> problem; // failed, and skipped or cancelled where that needs words
};

// Whether anything was lost of it for which its source has to stay.
inline bool keeps_source(const Outcome &outcome, LossSet accepted) {
    return std::ranges::any_of(outcome.losses, [&](const Loss &loss) { return keeps_source(loss, accepted); });
}
// Whether anything of it was lost that was not accepted.
inline bool has_failing_loss(const Outcome &outcome, LossSet accepted) {
    return std::ranges::any_of(outcome.losses, [&](const Loss &loss) { return fails(loss, accepted); });
}

} // namespace engine
