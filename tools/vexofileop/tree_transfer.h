// Copies or moves a directory with everything in it, and tells of each entry what became of it.
//
// The walk is the tool's own, since that of the library passes over what fails without a word, ends a directory at a
// link that exists already, and ends a whole tree at a link that the volume cannot hold. Files, metadata, ACLs and
// times are the library's work here too.
#pragma once

#include "tools/vexofileop/file_transfer.h"

#include <functional>
#include <set>
#include <string>
#include <vector>

namespace tool {

enum class EntryKind { file, link, directory, other };

struct TreeHooks {
    std::function<void(EntryKind kind, const std::string &source, const Outcome &outcome)> entry;
    std::function<bool()> stopped; // asked before each entry
};

class TreeTransfer {
  public:
    // `files` carries the files and links; both outlive this.
    TreeTransfer(Operation operation, FileTransfer &files, TreeHooks hooks)
        : m_move(operation == Operation::move), m_files(files), m_hooks(std::move(hooks)) {}

    // Both paths absolute; the source is a directory. An existing directory at the destination is merged into.
    void run(const std::string &source, const std::string &destination);

  private:
    struct Level;

    // Each answers whether nothing of it stayed behind.
    bool directory(const std::string &source, std::string destination);
    bool entry(const Level &level, const std::string &name);
    bool rename_whole(const std::string &source, const std::string &destination, bool &done);
    bool make_destination(Level &level);
    bool existing_destination(Level &level);
    void finish(Level &level);
    bool remove_source(Level &level);
    bool failed(const std::string &source, const std::string &destination, Problem problem);
    void tell(EntryKind kind, const std::string &source, Outcome outcome) { m_hooks.entry(kind, source, outcome); }

    bool m_move;
    FileTransfer &m_files;
    TreeHooks m_hooks;
    int m_sourceType = -1, m_destinationType = -1; // of the two volumes
    std::set<std::pair<dev_t, ino_t>> m_made;      // directories of this run
};

} // namespace tool
