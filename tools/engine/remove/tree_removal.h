// Removes files and trees with the store of extended metadata beside them, and tells of each entry what became of it.
#pragma once

#include "tools/engine/transfer/file_transfer.h"
#include "tools/vexofileop/terminal/console.h"

#include <string>
#include <sys/stat.h>
#include <vector>

namespace tool {

struct RemovalOptions {
    bool recursive = false, force = false, ask = false, stopOnError = false, verbose = false, json = false;
    // Nothing is said but failures, and nothing is counted: for a command of which the removal is a step.
    bool quiet = false;
};

class TreeRemoval {
  public:
    explicit TreeRemoval(const RemovalOptions &options) : m_options(options) {}
    // Paths as given. The exit status.
    int run(const std::vector<std::string> &paths);

  private:
    struct Entry;

    void operand(const std::string &given);
    bool remove(const Entry &entry);
    bool remove_directory(const Entry &entry);
    bool empty(const Entry &entry, int fd);
    bool remove_metadata(const Entry &entry, int fd);
    bool unlink(const Entry &entry, int flags);
    bool confirmed(const Entry &entry, const char *question);
    bool failed(const Entry &entry, const Problem &problem);
    void tell(const Entry &entry, Status status, const Problem *problem);
    int finish();
    bool stopped() const;

    const RemovalOptions &m_options;
    Console m_console;
    int m_done = 0, m_kept = 0, m_failed = 0;
};

} // namespace tool
