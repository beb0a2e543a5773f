// What a copy in a directory would lack, found out without copying anything: what belongs to an entry is given to an
// empty one under a private directory there, and the two are compared. Where that may not be made, from what the kernel
// and the platform say of the volume.
#pragma once

#include "tools/engine/compare/entry_view.h"
#include "tools/engine/compare/kept.h"
#include "tools/engine/compare/side.h"
#include "tools/engine/losses/loss.h"
#include "tools/engine/plan/room.h"
#include "tools/engine/plan/scratch_place.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace engine {

// In the private directory, what is made as a copy would be.
inline constexpr char kRehearsed[] = "entry";

class Rehearsal {
  public:
    // `directory`, which is open, stays the caller's; it is that of the destination, or the nearest one above that is
    // there. `probe`: something may be made in it, for as long as this lives.
    // `reversibleNames`: entries get names beside which a "._" file fits, where that is what stores are.
    Rehearsal(int directory, int type, bool probe, bool reversibleNames);

    bool probes() const { return m_place != nullptr; }
    const FreeRoom &room() const { return m_room; }
    bool keeps_holes() const { return m_keepsHoles; }
    int64_t directory_bytes() const { return m_directoryBytes; } // of an empty one
    bool keeps_hard_links() const { return m_keepsHardLinks; }
    int64_t link_inodes() const { return m_linkInodes; } // how many another name of a file takes
    const VolumeFacts &volume() const { return m_volume; }

    // What a copy of a file, link or directory would lack, but for its name. `merged`: what a directory goes into.
    std::vector<Loss> losses_of(const Side &source, const struct stat &found, const Side *merged = nullptr);
    // What the copy of the last one that was asked for takes beside its data and its store: a directory's blocks, those
    // of attributes, of a link's target.
    int64_t taken() const { return m_taken; }
    // Whether a copy can have a store, and what is kept for it in a directory of its own.
    bool takes_stores(const Side &source) const;
    bool takes_kept() const { return m_volume.store != StoreKind::none && can_make_stores(); }
    // The class that keeps a name from being used for an entry of this type; nothing: the volume takes it.
    std::optional<Loss> refusal_of(const std::string &name, mode_t type);
    // Adds a change of name where the volume keeps an entry of this one under another.
    void add_kept_name(const std::string &name, std::vector<Loss> &losses) const;
    // What the volume calls an entry of this name.
    const std::string &listed(const std::string &name);
    // Two names for which this is the same are one to the volume.
    std::string key_of(const std::string &name);

  private:
    bool make(const struct stat &found, std::vector<Loss> &losses);
    void dress(const Side &source, const VLIBCStat &status, bool file) const;
    void dress_as(const Side &merged) const;
    static void keep_what_is_the_owners(const Side &source, const Side &merged, std::vector<Loss> &losses);
    static void keep_group(const Side &source, const Side &merged, std::vector<Loss> &losses);
    void keep_creation(const Side &source, const Side &merged, std::vector<Loss> &losses) const;
    std::vector<Loss> rehearse(const Side &source, const struct stat &found, const Side *merged, bool plain = false);
    std::vector<Loss> losses_of_link(const Side &source, const struct stat &found);
    std::vector<Loss> losses_of_special(const Side &source, const struct stat &found);
    void add_holes(const Side &source, const struct stat &found, std::vector<Loss> &losses) const;
    int64_t blocks_of_filled(off_t size) const;
    std::string called(const Side &source) const;
    std::string signature(const Side &source, const struct stat &found) const;
    bool can_make_stores() const;
    void add_kept(const Side &source, const Side *merged, std::vector<Loss> &losses);
    void lock_as(const Side &source, bool merged) const;
    static void add_lock(const Side &source, const Side &copy, std::vector<Loss> &losses);
    void add_mac_attributes(const Side &source, std::vector<Loss> &losses) const;
    void add_merged_store(const Side &source, const Side &merged, std::vector<Loss> &losses) const;
    void add_empty_store(const KeptPlace &empty, const VolumeFacts &facts, const Side *merged,
                         std::vector<Loss> &losses);
    void add_tree(const Side &source, const Side *there, const std::string &path, bool carried,
                  std::vector<Loss> &losses, int depth = 0);
    static void add_left(const Side &source, const struct stat &found, const Side *there, const std::string &path,
                         std::vector<Loss> &losses);
    bool add_kept_entry(const Side &source, const struct stat &found, const std::string &path,
                        std::vector<Loss> &losses);
    void find_out();
    void find_out_links();
    const std::string &key_unseen(const std::string &name);
    void clear() const;

    int m_directory;
    VolumeFacts m_volume;
    FreeRoom m_room;
    bool m_reversibleNames;
    std::unique_ptr<ScratchPlace> m_place;
    bool m_keepsHoles = true, m_keepsHardLinks = true, m_keepsTimes = false, m_setsCreation = false, m_folds = false;
    size_t m_longestName = 255;
    off_t m_largestTaken = 0;   // bytes of the largest file that the volume is known to take
    bool m_foldsUnseen = false; // a name that cannot be looked up in another letter case cannot be made in it either
    std::map<std::string, std::string> m_firstOf; // names that were made, by them in one letter case
    std::map<std::string, std::string> m_keys;    // of names in one letter case
    std::map<std::string, std::string> m_listed;  // what the volume calls those that it may call something else
    std::map<ino_t, std::string> m_inodes;        // what was first made as each
    struct Known {
        std::vector<Loss> losses;
        int64_t taken;
    };
    std::map<std::string, Known> m_known; // by what is the same of many entries
    int64_t m_taken = 0, m_directoryBytes = 0, m_linkInodes = 0;
};

} // namespace engine
