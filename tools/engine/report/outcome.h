// What became of one entry.
#pragma once

#include "tools/engine/report/problem.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>

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
    bool ownerLost = false;         // the copy belongs to somebody else than the source
    std::optional<Problem> warning; // done, but not with everything
    std::optional<Problem> problem; // failed, and cancelled where that needs words
};

} // namespace engine
