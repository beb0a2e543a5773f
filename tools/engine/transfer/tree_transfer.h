// Copies or moves a directory with everything in it, and tells of each entry what became of it.
//
// The walk is the engine's own, since that of the library passes over what fails without a word, ends a directory at a
// link that exists already, and ends a whole tree at a link that the volume cannot hold. Metadata, ACLs and the bytes
// of what has any are the library's work here too.
//
// Asking the library for one file after the other costs more than asking it for a tree. So a copy takes what has
// nothing but what every entry has by descriptors (plain_entries.cpp), and hands over whole directories where their
// files have more and nothing can be in the way, and looks afterwards at what is there (whole_tree_copy.cpp): what has
// arrived is counted, and everything else goes through the walk, which names it. The directory that holds such a tree
// stays closed to everybody else until that is over, so that nobody can put a link in the way of what is still done in
// it. At the source nobody else can exchange a directory either, or it is walked through: the walk enters directories
// by descriptor and follows no link, which the library's own does not.
#pragma once

#include "platform/core.h"
#include "tools/engine/naming/naming.h"
#include "tools/engine/select/tree_selection.h"
#include "tools/engine/transfer/departure.h"
#include "tools/engine/transfer/file_transfer.h"
#include "tools/engine/transfer/held_directory.h"
#include "tools/engine/transfer/plain_copy.h"
#include "tools/engine/transfer/transfer_telling.h"
#include "tools/engine/transfer/tree_call.h"
#include "tools/engine/transfer/tree_part.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/name_block.h"
#include "tools/engine/walk/paths.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace engine {

class TreeTransfer {
  public:
    // `files` carries the files and links; it and the observer outlive this.
    TreeTransfer(const TransferOptions &options, FileTransfer &files, TransferObserver &observer)
        : m_move(options.operation == Operation::move), m_links(options.links || m_move), m_exact(options.exact),
          m_sync(options.sync), m_selection(options.selection),
          m_naming(options.reversibleNames, false, options.sync == Sync::file),
          m_whole(options.countsAlone && options.clone != Clone::always && options.sync != Sync::file &&
                  options.bytesPerSecond == 0 && !options.verify && !m_move && m_selection.takes_everything()),
          m_files(files), m_observer(observer) {}

    // Both paths absolute; the source is a directory. An existing directory at the destination is merged into. The
    // selection sees the source's own name at the start of each path, but not that of "photos/.".
    void run(const std::string &source, const std::string &destination);
    // Where what was asked for by its name goes, once that comes back or is kept. Neither ends with a dot or a slash.
    GivenName named(const std::string &source, const std::string &destination);

    // A name below `base` ("a/b/c"; the last one is no "." or "..") goes below `top`, both absolute, and the
    // directories on its way are made anew, or merged into. Those get what they have at the source, their times last,
    // once a name leads elsewhere, or by leave(). An empty name is the base itself.
    void run_below(const std::string &base, const std::string &top, const std::string &name, const NamesBelow &how);
    void leave();

    // Several processes: the one that begins a tree gives away what its top holds, by the sharer; each of the others
    // tells what it does, and carries what it is given. Both outlive this.
    void share(TreeSharer &sharer) { m_sharer = &sharer; }
    void share(TransferTelling &telling) {
        m_telling = &telling;
        m_made.share(telling, Ledger::Kind::directory);
    }
    // In one of the others. `files`: the two directories, open.
    Yield carry(const TreePart &part, std::vector<Descriptor> files);
    // In the one that has begun the tree. Directories that were made, by whomever; and whether a name of a part is an
    // entry that is to be carried.
    WrittenEntries &made() { return m_made; }
    bool carries(const TreePart &part, const std::string &name);

  private:
    // An entry of a directory that is held.
    struct Place {
        const HeldDirectory &in;
        std::string name;
        std::string path() const { return joined(in.path(), name); }
        std::string held() const { return in.below(name); } // for calls that take a path
    };
    // One directory on its way.
    struct Level {
        std::string source, destination = {};
        VLIBCStat status = {};  // of the source, before anything is done to it
        struct stat there = {}; // the destination
        HeldDirectory from = {}, to = {};
        std::string held = {}; // what the library was told of the source
        bool made = false;     // the destination was not there before
        bool hasStore = false; // the source holds an "@eaDir"
        bool onTheWay = false; // to a name below it: nothing of the source goes with it, and it stays
        bool left = false;     // an earlier run has taken something out of the source; `status` has the times before
        Outcome outcome = {};
        GivenNames given = {};                  // to the entries, at the destination
        mutable std::optional<bool> plain = {}; // entries may go by descriptors alone, once that was asked
        mutable bool noted = false;             // that they are of this run
    };

    // Each answers whether nothing of it stayed behind.
    bool directory(const Place &source, Place destination, std::vector<Loss> known = {});
    bool entry(const Level &level, const std::string &name, std::vector<Loss> known = {});
    bool entries(const Level &level, const NameBlock &names);
    bool carry(const Level &level, const std::string &name, const std::optional<struct stat> &found, EntryKind kind,
               std::vector<Loss> known = {});
    void fix_name(Level &level, Place &destination) const;
    void give_names(Level &level, const Place &destination, NameBlock &names);
    std::vector<Loss> give_name(Level &level, const std::string &name);
    bool is_nameless(const Level &level, const std::string &name);
    void remove_list(const Level &level) const;
    bool is_selected(const Level &level, const std::string &name);
    bool rename_whole(const Place &source, const Place &destination, bool &done);
    // Around what is done with the entries of a directory. False: the one above has been moved away.
    std::string begin_leaving(Level &level, const Place &destination, bool empty);
    void descend(const Place &source, const Place &destination);
    bool ascend(const Level &level, const Place &source, const Place &destination);
    bool open_source(Level &level, const Place &source);
    bool is_mounted(const Level &level, const Place &source);
    void tell_mounts(const std::string &source, const std::string &real, const std::string &destination);
    bool make_destination(Level &level, const Place &source, const Place &destination);
    bool existing_destination(Level &level, const Place &source, const Place &destination);
    void finish(Level &level, const Place &source, const Place &destination);
    bool give_belongings(Level &level, const Place &source, const Place &destination);
    bool is_bare(const Level &level, const Place &source, const Place &destination) const;
    std::optional<Problem> carry_store(const Place &source, const Place &destination) const;
    void write_out_level(Level &level, const Place &destination) const;
    void compare_level(Level &level, const Place &source, const Place &destination);
    void add_strangers(Level &level) const;
    bool left(const Level &level, const std::string &name, Status status, const char *why, bool lost);
    bool unreadable(const Level &level);
    // Whether to try once more what the kernel has just refused with errno, which stays what it is.
    bool again(const Level &level, const std::string &destination, int &tries);
    Problem into_itself() const;
    bool remove_source(Level &level, const Place &source);
    bool failed(const std::string &source, const std::string &destination, Problem problem,
                std::vector<Loss> losses = {});
    void tell(EntryKind kind, const std::string &source, const Outcome &outcome) {
        m_files.came_of(outcome);
        m_observer.entry(kind, source, outcome);
    }

    // A directory of which the entries are being carried, those from `next` to before `end` by this process.
    struct Walk {
        const Level &level;
        const NameBlock &names;
        size_t end, next = 0;
        Crew::Group given = 0;
        std::optional<bool> mayGive = {};
    };
    class Aside;
    bool may_share(const Level &level) const;
    static bool may_split(const Level &level);
    bool share_entries(const Level &level, const NameBlock &names);
    void give_away();
    TreePart part_of(const Level &level) const;
    void begin(const TreeRequest &request);

    // A directory on the way to a name, at both ends.
    struct Step {
        Level level;
        std::string name, made; // in the directories above
        HeldDirectory parent;   // where a link led to lies in this one, under `real`
        std::string real;
        bool aboveLetGo = false;
        std::string note = {}; // of its times, beside what it becomes, while entries leave it
        std::optional<std::vector<std::string>> names = {}; // what it held then, where that was looked at
    };
    bool begin_way(const std::string &base, const std::string &top);
    bool step_down(const std::string &name, const NamesBelow &how, const std::string &wanted);
    bool open_step(Step &step, const NamesBelow &how) const;
    void step_up();
    void begin_leaving(Step &step);
    void end_leaving(const Step &step);
    void finish_base();
    void leaf(const std::string &name, const NamesBelow &how, const std::string &wanted);
    bool missed(const std::string &wanted, Problem problem);

    // Entries with nothing but what every entry has. Nothing: it is another one, and goes the walk's own way.
    bool may_be_plain(const Level &level);
    std::optional<bool> plain_entry(const Level &level, const std::string &name);
    std::optional<bool> plain_directory(const Level &above, const std::string &name, const VLIBCStat &found);
    bool open_plain(const Level &above, const std::string &name, Level &level, NameBlock &names) const;

    // What the library is to copy, and has copied, as a whole.
    using Types = std::unordered_map<std::string, unsigned char>;
    // Names of one directory, by what becomes of them.
    struct Found {
        std::vector<std::string> files, links, directories; // arrived
        std::vector<std::string> rest;                      // for the walk
    };
    bool may_be_whole(const Level &level, const std::string &name, const struct stat &found);
    bool carries_all(const Level &level);
    bool has_linked_files(int directory, const std::vector<Entry> &entries) const;
    bool is_ours_all_down(int parent, const std::string &name);
    bool is_ours_all_down(Descriptor &directory, int depth);
    void copy_whole(const Place &source, const Place &destination, bool withStore);
    TreeCall call_library(const Place &source, const std::string &destination) const;
    void check(const Place &source, const Place &destination, const std::string &held, const TreeCall &call);
    std::optional<Found> compare(Level &level, const TreeCall &call);
    void sort_entry(Level &level, Entry entry, const Types &types, const TreeCall &call, Found &found) const;
    void check_files(const Level &level, const std::vector<std::string> &names, const TreeCall &call);
    void check_link(const Level &level, const std::string &name);
    void copy_rest(const Level &level, const Found &found);
    void check_directory(Level &level, const Place &source, const Place &destination, bool entriesMade);
    bool is_finished(const Level &level) const;

    bool m_move, m_links, m_exact;
    Sync m_sync;
    TreeSelection m_selection;
    Naming m_naming;
    bool m_whole;
    FileTransfer &m_files;
    TransferObserver &m_observer;
    int m_sourceType = -1, m_destinationType = -1; // of the two volumes
    VolumeTraits m_sourceTraits, m_destinationTraits;
    dev_t m_sourceDevice = 0;
    bool m_sourceKeepsMac = false;  // the source's volume may hold what no copy carries
    std::set<std::string> m_mounts; // sources at which another volume is mounted, which was told
    WrittenEntries m_made;          // directories of this run
    std::map<FileNumber, std::vector<Departure>> m_departures; // by the directories that they were found in
    size_t m_lookedAt = 0;                                     // entries, for one directory that is to go as a whole
    std::set<dev_t> m_carryAll, m_carryLess;                   // volumes that were asked whether they carry everything
    std::set<std::pair<dev_t, ino_t>> m_shared; // directories to walk through: others may exchange something there
    bool m_checking = false;
    int m_depth = 0;
    std::vector<Step> m_way;                   // from the base of names down to the last one's directory
    WrittenEntries m_stepped;                  // directories that were on the way
    std::set<std::pair<dev_t, ino_t>> m_told;  // those of which something was told
    std::map<std::string, VLIBCStat> m_before; // of a move: what they were before anything left them
    size_t m_listed = 0, m_wanted = 0;         // entries of directories on the way that were listed, and names so far
    bool m_baseListed = false;
    bool m_unfinished = false; // directories on the way are
    TreeSharer *m_sharer = nullptr;
    TransferTelling *m_telling = nullptr;
    bool m_shares = false; // the top of a tree is next
    uint64_t m_parts = 0;  // given away at the top
    TreeRequest m_request = {};
    std::vector<Walk *> m_walks = {}; // of this process' part, down to where it is
    PlainCopy m_plain = {};
};

} // namespace engine
