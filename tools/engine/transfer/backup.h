// What is replaced is kept under another name, with its store.
#pragma once

#include "tools/engine/report/problem.h"
#include "tools/engine/transfer/file_conflict.h"
#include "tools/engine/transfer/held_directory.h"
#include "tools/engine/transfer/transfer_options.h"

#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace engine {

class Backups {
  public:
    explicit Backups(const BackupOptions &options) : m_options(options) {}

    bool wanted() const { return m_options.wanted; }
    // Paths of destinations go down from here: below the directory of backups they are the same.
    void begin(const std::string &top);
    // Where what stands at a path of the destination goes.
    std::string place_of(const std::string &destination) const;
    // The directory of backups for a directory of the destination; empty where backups stand beside what replaces them.
    std::string directory_for(const std::string &directory) const;

    // Why the entry cannot be kept, before anything is done; nothing: it can. `source`: what is to come in its place,
    // which is never replaced by it, and neither is what this run has `written`.
    std::optional<Problem> refusal(const HeldDirectory &directory, const std::string &destination,
                                   const std::optional<struct stat> &source, const WrittenEntries *written) const;
    // Gives the entry its other name, by renaming with what is kept for it: an older backup of that name goes. Nothing:
    // it is kept, and what was asked for there is free.
    std::optional<Problem> keep(const HeldDirectory &directory, const std::string &destination,
                                const std::string &name) const;
    // The other way, where nothing has come in its place after all. False: it is still under its other name.
    bool put_back(const HeldDirectory &directory, const std::string &destination, const std::string &name) const;

  private:
    struct Place {
        HeldDirectory other; // closed: the directory of the entry itself
        std::string name;
    };
    // The nearest directory that is there, on the way to that of backups for a directory of the destination.
    struct Way {
        HeldDirectory at; // closed, with why: somewhere on it stands what is no directory
        bool whole = false;
        std::string why = {};
    };
    std::string below_top(const std::string &path) const;
    Way way_to(const std::string &directory) const;
    HeldDirectory made() const;
    std::optional<Place> open(const std::string &destination, const std::string &name) const;

    BackupOptions m_options;
    std::string m_top, m_directory; // absolute
    // What of the way to the directory of backups lies in that of the destination, which may be anybody's: there no
    // link leads on. Nothing: all of it is where the user has pointed to.
    std::optional<std::vector<std::string>> m_inside;
};

} // namespace engine
