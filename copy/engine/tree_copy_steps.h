// The copy of one tree under way: its state, and its steps. Where a step is defined:
//   tree_copy.cpp             the walk: the levels, their entries, and how one goes on after the other
//   tree_copy_entry.cpp       one entry: its paths, its type, links
//   tree_copy_directory.cpp   one directory: opening and making it, what it gets when its entries are there
//   tree_copy_move.cpp        the rename that a move begins with, and what a move leaves at the source
//   tree_copy_known.cpp       what the files of one directory need not ask for one by one
//   tree_copy_listing.h       the entries of one directory
#pragma once

#include "copy/engine/new_copy.h"
#include "copy/engine/tree_copy.h"
#include "copy/engine/tree_copy_listing.h"
#include "platform/core.h"
#include "support/dir.h"
#include "support/errno_table.h"
#include "support/error_codes.h"
#include "support/guards.h"
#include "support/path_buffer.h"
#include "support/report.h"
#include "support/text.h"

#include <cstddef>
#include <cstdint>
#include <dirent.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>

namespace vexo {

// A source directory or entry that cannot be opened or looked at.
inline constexpr ErrnoRow kSourceErrors[] = {
    {EACCES, Error::permission}, {ENOENT, Error::source_missing}, {EIO, Error::device},
    {ENXIO, Error::device},      {EHOSTDOWN, Error::host_down},
};

template <size_t Count>
constexpr bool is_one_of(int32_t kind, const int32_t (&kinds)[Count]) {
    for (const int32_t one : kinds) {
        if (one == kind) {
            return true;
        }
    }
    return false;
}

// The two paths are kept here and grow and shrink with the level, so that a level costs little stack and a tree can be
// as deep as a path can be long. The deepest levels have their directories open, those above them are set aside.
class TreeWalk {
  public:
    TreeWalk(const TreeRequest &request, bool *cancelled) : m_request(request), m_cancelled(cancelled) {}

    int run(const char *src, const char *dst);

  private:
    // What one level keeps while its entries are walked.
    struct Level {
        Level *above; // null: the top
        Listing entries = {};
        VLIBCStat status = {};                     // of the source directory, before the walk
        std::optional<WalkedDirectory> known = {}; // once it has been asked for
        Fd copies = {};                            // the destination, where files are made in it by name
        bool asked = false;
        bool made = false;       // the destination, by this walk
        bool keepSource = false; // the destination was there, and is the source or is not to be replaced
        bool cancelled = false;
        int lastResult = 0;
    };
    // How a level goes on after an entry.
    enum class Step { next, stop_walk, leave };
    // The kinds of entries that are carried.
    enum class EntryType { regular, link, directory, other, unreadable };
    // What came of the rename that a move begins with.
    enum class Rename { done, copy_instead, failed };

    int take_paths(const char *src, const char *dst);
    int copy_level(Level *above);
    int copy_opened(Level &level);
    Step walk(Level &level);
    Step walk_unreadable(Level &level);
    Step copy_entry(Level &level, const Listing::Entry &entry);
    Step after_entry(Level &level, int result);
    void make_room(Level *above);
    void open_directories(Level &level) const;
    bool take_up(Level &level);

    bool enter(const Listing::Entry &entry);
    int entry_too_long(size_t srcLength, size_t dstLength);
    EntryType type_of(const Listing::Entry &entry);
    int entry_unreadable();
    int copy_link();
    void note_destination_root();
    void note_resolved_roots();
    bool is_destination_root() const;
    bool is_where_it_was() const;
    std::string_view below_top() const { return behind(m_src.view(), m_topLength); }

    Dir open_directory(const Level &level) const;
    int open_source(Level &level);
    int source_not_opened();
    int fix_destination_name();
    int stat_source(Level &level);
    int make_destination(Level &level);
    int merge_into_existing(Level &level);
    int finish_directory(Level &level);
    void give_what_belongs(const Level &level, int fd, const VLIBCStat &status);
    void copy_attributes(int fd, const VLIBCStat &status);
    void copy_acl(const NewCopy &copy, mode_t mode);
    void list_source_attributes(const Level &level, int dstFd, AttributeNames &names) const;
    bool set_record_now(const NewCopy &copy, const VLIBCStat &before, const VLIBCStat &now) const;
    bool set_owner(int fd, const VLIBCStat &status);
    void restore_set_id_bits(int fd, const VLIBCStat &status);
    void set_times(const VLIBCStat &status);

    Rename move_by_rename();
    int finish_rename();
    void clean_up_moved(Level &level);

    void look_up_directory(Level &level);
    StoreSeen look_for_stores() const;

    Place here(uint32_t line) const { return {m_request.source, line}; }
    const char *src() const { return m_src.c_str(); }
    const char *dst() const { return m_dst.c_str(); }
    void report(const char *path) const {
        if (m_request.errReport) {
            const KeepErrors keep; // the caller sees the cause, whatever its callback does
            m_request.errReport(path, VLIBCErrGet());
        }
    }

    const TreeRequest &m_request;
    bool *m_cancelled;
    bool m_aborted = false;            // the whole tree ends, through every level
    size_t m_openLevels = 0;           // directories of the source that are open
    size_t m_topLength = 0;            // of the source's path at the top
    std::optional<struct stat> m_root; // the top directory of the destination
    // Where inodes prove nothing: the source, resolved, and what follows it in the destination's resolved path where
    // that lies in the source. Else empty.
    PathBuffer m_resolved;
    PathBuffer m_rootBelowTop;
    bool m_ontoItself = false; // source and destination resolve to one path
    PathBuffer m_src;
    PathBuffer m_dst;
    PathBuffer m_scratch; // a translated name, a link's target, a fixed path: never across a level
};

} // namespace vexo
