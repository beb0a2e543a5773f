// What FileTransfer knows of one file while it carries it.
#pragma once

#include "tools/engine/store/store_parts.h"
#include "tools/engine/transfer/file_conflict.h"
#include "tools/engine/transfer/file_transfer.h"
#include "tools/engine/walk/descriptor.h"

#include <fmt/format.h>
#include <optional>
#include <string>
#include <sys/stat.h>

namespace engine {

struct FileTransfer::Attempt : FileAttempt {
    TransferObserver &observer;
    Surroundings around;
    int sourceType = -1;
    Descriptor file = Descriptor(-1);       // the source, for paths only
    std::string made = {};                  // the private name of the copy
    std::optional<struct stat> result = {}; // what has arrived
    StoreParts store = {};                  // what is kept for the source
    std::string missingAttributes = {};     // names of those that could not be set
    bool macAttributes = false;             // which no copy carries
    bool ownerLost = false;                 // it belongs to somebody else than its source
    bool changed = false;                   // while it was copied
    bool stopAnswered = false;              // the library was told to stop
    bool progressSeen = false;
    std::string lost = {}; // what the copy has not got
    Problem told = {};     // what is to be said of it

    // The source, whatever has become of its name.
    std::string opened() const { return fmt::format("/proc/self/fd/{}", file.get()); }

    void lose(const std::string &what) { lost += (lost.empty() ? "" : " and ") + what; }
    void note(Problem problem) {
        if (told.reason.empty()) {
            told = std::move(problem);
        } else if (!problem.reason.empty()) {
            told.reason += "; " + problem.reason;
        }
    }

    static void on_progress(void *data, int64_t bytes, int64_t) {
        auto &attempt = *static_cast<Attempt *>(data);
        attempt.progressSeen = true;
        attempt.observer.progress(bytes, false);
    }
    static int on_poll(void *data) {
        auto &attempt = *static_cast<Attempt *>(data);
        attempt.stopAnswered = attempt.stopAnswered || attempt.observer.stopped();
        return attempt.stopAnswered ? 1 : 0;
    }
};

} // namespace engine
