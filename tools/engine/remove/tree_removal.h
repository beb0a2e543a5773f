// Removes files and trees with the store of extended metadata beside them, and tells of each entry what became of it.
#pragma once

#include "tools/engine/report/observer.h"
#include "tools/engine/report/outcome.h"

#include <string>
#include <sys/stat.h>

namespace engine {

struct RemovalOptions {
    bool recursive = false; // directories too, with everything in them
    bool force = false;     // what does not exist is no failure
};

enum class RemovalQuestion { entry, into_directory, directory };

class RemovalObserver : public Observer {
  public:
    // What became of an entry: done, skipped for it was to stay, or failed with a problem. `mode`: of the entry; 0
    // where it could not be looked at.
    virtual void entry(const std::string &path, mode_t mode, Status status, const Problem *problem) = 0;
    // Asked before each step that removes or leads into something.
    virtual bool may_remove(const std::string &path, RemovalQuestion question) = 0;
};

class TreeRemoval {
  public:
    // The observer outlives this.
    TreeRemoval(const RemovalOptions &options, RemovalObserver &observer) : m_options(options), m_observer(observer) {}

    // An absolute path; a slash at its end asks for a directory. The root, and what ends in "." or "..", are refused.
    void run(const std::string &path);

  private:
    struct Entry;

    bool remove(const Entry &entry);
    bool remove_directory(const Entry &entry);
    bool empty(const Entry &entry, int fd);
    bool remove_metadata(const Entry &entry, int fd);
    bool unlink(const Entry &entry, int flags);
    bool confirmed(const Entry &entry, RemovalQuestion question);
    bool failed(const Entry &entry, const Problem &problem);

    RemovalOptions m_options;
    RemovalObserver &m_observer;
};

} // namespace engine
