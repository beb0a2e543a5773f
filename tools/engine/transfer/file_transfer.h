// Copies or moves one file through the library and finds out what really became of it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>

namespace tool {

enum class Operation { copy, move };

// What to do with a destination that exists.
enum class Conflict { fail, replace, skip, ask, keep_both };

struct TransferOptions {
    Operation operation = Operation::copy;
    Conflict conflict = Conflict::fail;
    bool clone = false;
    bool links = false; // a copy of a symbolic link is a link; else it is followed. A move never follows one.
};

// What a transfer asks of the program around it. All run on the calling thread and must not throw.
struct TransferHooks {
    std::function<void(int64_t bytes)> progress; // so many more bytes are done
    std::function<bool()> stopped;
    std::function<bool(const std::string &destination)> mayReplace;
};

// Why something did not work: words, and the library's code where it has one.
struct Problem {
    std::string reason;
    uint32_t code = 0;
    bool withSource = false; // whatever the destination
};

Problem problem_of(uint32_t code);
// For what the tool itself was refused by the kernel.
Problem problem_of_errno(int number);
// "a named pipe": an entry that is no regular file.
const char *kind_of(mode_t mode);
// The path with the last component as a volume of the FAT family takes it.
std::string fat_name(const std::string &path);

enum class Status { done, skipped, failed, cancelled };

struct Outcome {
    Status status = Status::done;
    std::string destination; // where the file is now, which may be another name than asked for
    int64_t bytes = 0;       // size of the file
    bool cloned = false;
    bool ownerLost = false;         // the copy belongs to somebody else than the source
    std::optional<Problem> warning; // done, but not with everything
    std::optional<Problem> problem; // failed, and cancelled where that needs words
};

// What the caller knows of the two directories that a transfer goes from and to.
struct Surroundings {
    bool sourceWithoutStore = false; // no "@eaDir" beside the source
    bool destinationNew = false;     // this run has made it, so that what stands there is an exception
};

// Gives a new link what the source has: its owner, for which the result says whether it went, and times.
bool finish_link(const struct stat &source, const std::string &destination);

class FileTransfer {
  public:
    FileTransfer(TransferOptions options, TransferHooks hooks) : m_options(options), m_hooks(std::move(hooks)) {}

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
    std::optional<Problem> check_destination(const Attempt &attempt) const;
    std::optional<Problem> choose_free_name(Attempt &attempt) const;
    std::optional<Outcome> resolve_conflict(Attempt &attempt) const;
    std::optional<Outcome> skip_or_replace(Attempt &attempt) const;
    Outcome transfer(Attempt &attempt);
    Outcome arrived(const Attempt &attempt, bool ownerLost);
    std::optional<Problem> move_as_it_is(Attempt &attempt) const;
    std::optional<Problem> copy_link(Attempt &attempt) const;
    std::optional<Problem> call_library(Attempt &attempt);
    std::optional<Problem> missing_parts(const Attempt &attempt, const std::string &destination);
    std::optional<Problem> missing_metadata(const Attempt &attempt, const std::string &destination);
    uint32_t flags_for(const Attempt &attempt) const;

    TransferOptions m_options;
    TransferHooks m_hooks;
    Directory m_from, m_to;
    std::set<std::pair<dev_t, ino_t>> m_written; // destinations of this run
};

} // namespace tool
