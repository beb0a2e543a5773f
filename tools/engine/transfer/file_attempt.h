// What FileTransfer knows of one file while it carries it.
#pragma once

#include "copy/copy.h"
#include "tools/engine/losses/loss.h"
#include "tools/engine/store/store_parts.h"
#include "tools/engine/transfer/file_conflict.h"
#include "tools/engine/transfer/file_transfer.h"
#include "tools/engine/transfer/store_witness.h"
#include "tools/engine/walk/descriptor.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace engine {

struct FileTransfer::Attempt : FileAttempt {
    TransferObserver &observer;
    Surroundings around;
    Pace &pace;
    int sourceType = -1;
    Descriptor file = Descriptor(-1);       // the source, for paths only
    Descriptor written = Descriptor(-1);    // the copy, from before anything was written to it
    Descriptor target = Descriptor(-1);     // what is written in place, with a lock on it
    std::string made = {};                  // the private name of the copy
    std::optional<struct stat> result = {}; // what has arrived
    HeldDirectory real = {};                // where the source lies that a link led to, under `realName`
    std::string realName = {};
    StoreParts store = {};                 // what is kept for the source
    bool storeUnknown = false;             // it has not been looked for yet
    bool nothingBeside = false;            // no "@eaDir" was there when what lies in it was carried
    bool mayHaveAcl = true;                // the source, whose mode may then show more than its group has
    std::optional<StoreWitness> kept = {}; // of a move: what that was when it was copied
    std::vector<Loss> losses = {};         // what the copy has not got
    std::optional<struct stat> old = {};   // what stood there, and is replaced
    // What that lacks of the source, where it has the same content; nothing: it has not, or nobody has looked.
    std::optional<std::vector<Loss>> thereLacks = {};
    bool inPlace = false;      // that was written into
    bool linked = false;       // to what another name of the source has become
    bool renamed = false;      // within its volume
    bool special = false;      // the source is no file, link or directory
    bool changed = false;      // while it was copied
    bool stopAnswered = false; // the library was told to stop
    bool progressSeen = false; // data were copied
    bool cloneAsked = false;   // no data need to be
    bool cloneOrNothing = false;
    bool final = true;        // no other try comes after it
    bool backedUp = false;    // what stood there has another name now
    bool storeLocked = false; // somebody held what is kept for the source, or for the copy
    bool begun = false;       // something was replaced, renamed or removed: it is not tried again
    Problem told = {};        // what is to be said of it

    // The source, whatever has become of its name.
    std::string opened() const { return fmt::format("/proc/self/fd/{}", file.get()); }

    // The source where it lies, whatever link led there.
    const HeldDirectory &where() const { return real.is_open() ? real : from; }
    const std::string &what() const { return real.is_open() ? realName : sourceName; }

    // Where it was to share its data.
    bool is_copied_instead() const { return cloneOrNothing && progressSeen; }

    void note(Problem problem) {
        if (told.reason.empty()) {
            told = std::move(problem);
        } else if (!problem.reason.empty()) {
            told.reason += "; " + problem.reason;
            told.replaced = told.replaced || problem.replaced;
        }
    }

    static void on_progress(void *data, int64_t bytes, int64_t) {
        auto &attempt = *static_cast<Attempt *>(data);
        attempt.progressSeen = true;
        attempt.observer.progress(bytes, false);
        attempt.pace.done(bytes, attempt.observer);
    }
    static int64_t on_read(void *data, int64_t, int64_t) { return static_cast<Attempt *>(data)->pace.block(); }
    // The data, with a descriptor of the copy that hears of an error which is told once, whoever asks.
    static int on_data(void *data, const char *, const char *, int *from, int *to, int64_t size, VEXOCopyArgs *record) {
        static_cast<Attempt *>(data)->written = Descriptor(::fcntl(*to, F_DUPFD_CLOEXEC, 0));
        return VEXOFileOpCopyFileFd(*from, *to, size, record);
    }
    static int on_poll(void *data) {
        auto &attempt = *static_cast<Attempt *>(data);
        attempt.stopAnswered = attempt.stopAnswered || attempt.observer.stopped();
        return attempt.stopAnswered || attempt.is_copied_instead() ? 1 : 0;
    }
};

} // namespace engine
