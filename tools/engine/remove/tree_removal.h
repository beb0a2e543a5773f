// Removes files and trees with the store of extended metadata beside them, and tells of each entry what became of it.
//
// Directories are entered by descriptor, no link is followed, and a few descriptors do, however deep a tree is and
// however long its paths are. An entry goes before what is kept beside it; the same request again finishes what a run
// that was stopped between the two has left.
#pragma once

#include "tools/engine/report/observer.h"
#include "tools/engine/report/outcome.h"
#include "tools/engine/transfer/held_directory.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/directory_chain.h"
#include "tools/engine/walk/name_block.h"
#include "tools/engine/workers/crew.h"

#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unordered_set>
#include <utility>
#include <vector>

namespace engine {

struct RemovalOptions {
    bool recursive = false;        // directories too, with everything in them
    bool emptyDirectories = false; // directories too that hold nothing but what belongs to nobody any more
    bool force = false;            // what does not exist is no failure
    bool mountsStay = false;       // a volume that is mounted in the tree stays, with the directories around it
    bool rehearsal = false;        // nothing is removed: told is what would be, as far as flags and rights tell
    bool kept = false;             // what is no directory is given to the observer to keep instead
    bool keptBeside = false;       // in its own directory, which stays for that
};

enum class RemovalQuestion { entry, into_directory, directory, rest };

class RemovalObserver : public Observer {
  public:
    // What became of an entry: done, with a problem where there is something to add, skipped for it was to stay, or
    // failed with a problem. `mode`: its type alone; 0 where it could not be looked at.
    virtual void entry(const std::string &path, mode_t mode, Status status, const Problem *problem) = 0;
    // Asked before each step that removes or leads into something; `rest` is what an entry that is gone has left.
    virtual bool may_remove(const std::string &path, RemovalQuestion question) = 0;
    // Of an entry that is to be kept: it gets another name, with what is kept for it; in a rehearsal it is asked
    // whether it could. Nothing: it has it.
    virtual std::optional<Problem> keep(const HeldDirectory &, const std::string &) { return std::nullopt; }
};

class TreeRemoval {
  public:
    // The observer outlives this, and so does the crew, which is given directories where others have nothing to do.
    TreeRemoval(const RemovalOptions &options, RemovalObserver &observer, Crew *crew = nullptr)
        : m_options(options), m_observer(observer), m_crew(crew) {}

    // An absolute path; a slash at its end asks for a directory. The root, and what ends in "." or "..", are refused.
    void run(const std::string &path);
    // An entry of a directory that is held, and is told by its path. What killed commands have left there stays.
    void run(const HeldDirectory &directory, const std::string &name);
    // The same as a job for a crew, which gives it away in parts: directories in one that it holds open. Whether
    // nothing of it stayed; what was asked for tells that itself.
    static Job job_of(const std::string &path);
    bool run(Job job);
    // The paths of what such a job is to remove, for people.
    static std::vector<std::string> paths_of(std::string_view job);

  private:
    // A directory that is being emptied. The first one holds what was asked for, and stays.
    struct Level {
        std::string name = {};                                    // in the one above
        Descriptor stores = Descriptor(-1);                       // its "@eaDir", once that was needed
        std::optional<std::unordered_set<std::string>> kept = {}; // what lies in that, where it is worth a list
        bool keptAsked = false;
        size_t pathLength = 0; // of m_path, without the names below it
        int type = -1;         // of its volume
        bool belongs = false;  // to another entry: neither asked about nor counted
        bool hasStores = true; // something may be kept beside its entries
        bool restOnly = false; // its own entries are gone
        bool complete = true;
        EntryBlock entries = {};
        size_t next = 0;
        size_t directories = 0; // among those that are left, as they were listed
        int closed = -1;        // of a rehearsal: the errno that nothing may be taken out of it for, 0; not asked yet
        Crew::Group given = 0;  // directories that others remove

        void list(EntryBlock listed);
        bool entries_belong() const { return belongs || restOnly; }
    };

    bool open_parent(const std::string &path, const std::string &name);
    bool hold_parent(int directory, const std::string &path, int type);
    void look_for_stores();
    void remove_entry(const std::string &name, mode_t mode);
    void walk();
    bool is_asked_for() const { return m_levels.size() == 1 && !m_job; }
    void begin(const std::string &path);
    void share();
    void collect();
    bool give_half(size_t at, bool all);
    void remove_next();
    void enter(const Entry &entry);
    bool remove_unread(const Entry &entry);
    void leave();
    enum class Finished { removed, failed, not_yet };
    Finished finish();
    bool list_rest(Level &emptied);
    void unlink(const Entry &entry);
    void keep(const Entry &entry);
    bool holds_strangers(Level &emptied);
    void gone(const std::string &name, mode_t mode);
    std::optional<Problem> remove_store(const std::string &name);
    bool open_stores();
    bool remove_streams(const std::string &name);
    void remove_unfinished(const std::string &name);
    bool has_rest(const std::string &name) const;
    void remove_rest(const std::string &name);
    int type_of_directory() const;
    bool confirmed(mode_t mode, RemovalQuestion question);
    bool would_go(size_t level, const std::string &name);
    void failed(mode_t mode, const Problem &problem);

    RemovalOptions m_options;
    RemovalObserver &m_observer;
    Crew *m_crew;
    bool m_job = false;          // the first level is one of a tree
    HeldDirectory m_parent = {}; // of what was asked for
    std::vector<Level> m_levels = {};
    DirectoryChain m_way = {};                       // to the lowest level
    std::string m_path = {};                         // of what is being removed: for people
    std::set<std::pair<dev_t, ino_t>> m_tidied = {}; // directories without what killed commands have left
};

} // namespace engine
