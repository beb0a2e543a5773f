// Copies or moves one file through the library and finds out what really became of it.
#pragma once

#include "tools/engine/transfer/file_conflict.h"
#include "tools/engine/transfer/transfer_observer.h"
#include "tools/engine/transfer/transfer_options.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace engine {

// What the caller knows of the two directories that a transfer goes from and to.
struct Surroundings {
    bool sourceWithoutStore = false; // no "@eaDir" beside the source
    bool destinationNew = false;     // this run has made it, so that what stands there is an exception
};

class FileTransfer {
  public:
    // The observer outlives this. It is told the progress, and asked.
    FileTransfer(const TransferOptions &options, TransferObserver &observer)
        : m_options(options), m_observer(observer) {}

    // Both paths absolute. `entry`: what lstat says of the source, where the caller has asked already.
    Outcome run(const std::string &source, const std::string &destination, std::optional<struct stat> entry = {},
                Surroundings around = {});

    // For a file that the library has copied without this: what the copy could not take along.
    std::optional<Problem> left_behind(const std::string &source, const std::string &destination);
    // It is not replaced by a later one of this run.
    void remember(const std::string &destination);

  private:
    struct Attempt; // one file's state, shared with the library's callbacks

    // The directory that the last file lay in: mostly the next one lies beside it.
    struct Directory {
        std::string path = {};
        dev_t device = 0;
        int type = -1;    // of its volume
        bool mac = false; // whether that keeps attributes of Macs
    };
    static const Directory &directory_of(Directory &last, const std::string &path);

    std::optional<Problem> check_source(Attempt &attempt) const;
    std::optional<Problem> check_mac_attributes(Attempt &attempt);
    Outcome transfer(Attempt &attempt);
    Outcome arrived(const Attempt &attempt, bool ownerLost);
    std::optional<Problem> carry_as_it_is(Attempt &attempt) const;
    std::optional<Problem> call_library(Attempt &attempt);
    std::optional<Problem> missing_parts(const Attempt &attempt, const std::string &destination);
    std::optional<Problem> missing_metadata(const Attempt &attempt, const std::string &destination);
    uint32_t flags_for(const Attempt &attempt) const;

    TransferOptions m_options;
    TransferObserver &m_observer;
    Directory m_from, m_to;
    WrittenFiles m_written; // destinations of this run
};

} // namespace engine
