// Files of several names: what a run has made of the first name, the others become links to.
#pragma once

#include "tools/engine/compare/witness.h"
#include "tools/engine/transfer/held_directory.h"
#include "tools/engine/transfer/ledger.h"

#include <map>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>

namespace engine {

// Keeps a record for each file of the source that has, or had, more than one name, however many they are.
class LinkedFiles {
  public:
    struct Made {
        struct stat source = {}, file = {};
        std::string path = {}; // empty: nothing has been made of it
        bool alone = false;
        bool noted = false;   // for runs that come after a kill
        bool claimed = false; // by such a note, and not proven yet
    };

    // Whether a name of this file went before. A file of one name is known only when it has lost others to this run.
    bool contains(const struct stat &file) const;
    // Takes note of a file that has several.
    void add(const struct stat &file);

    // What a name has become, once it stands there. `file`: the source as it was copied, which has several or has been
    // known to. What lies on another volume than the first one is not remembered in its place. `alone`: what is kept
    // for this name at the source is kept in the file itself now, so that it cannot be another name's as well.
    void placed(const struct stat &file, const HeldDirectory &to, const std::string &name, bool alone);

    // Whether the file stands there already under this name as well: the one that this run has made.
    bool is_there(const struct stat &file, const std::optional<struct stat> &there) const;

    // Whether another name could become one of what this run has made of the file, in that directory.
    bool can_link(const struct stat &file, const HeldDirectory &to) const;

    // Makes `made` a link to what this run has made of another name of the file: only where the file is as it was then,
    // and what was made is still the same. False, with errno: it is to be copied, or EEXIST where the name is taken.
    bool link(const struct stat &file, const HeldDirectory &to, const std::string &made) const;

    // A name of the source went, or a store was brought up to date: that is no change of the file. `now`: as it is.
    void touched(const struct stat &now);

    // What a note says that an earlier run has made of a file: it counts once that is proven.
    void claim(const FileNumber &file, Made made);
    // The same of a source, as long as both of them are what was noted; what is not is forgotten. And of what this run
    // has made of it, where nothing but the change time of the source is another one: FUSE tells that of a name that
    // went when it likes.
    const Made *claimed(const struct stat &file);
    void prove(const struct stat &file);
    void forget(const struct stat &file) { m_files.erase({file.st_dev, file.st_ino}); }
    // What is to be noted of a file before a name of it goes; nothing: it is, or nobody could make use of it.
    const Made *take_note(const struct stat &file);
    // Whether names are left of files that have been noted. Of one that nobody has met: whether fewer names have
    // arrived than there were.
    bool has_noted() const;

    bool empty() const { return m_files.empty(); }
    // What is known of one file, for another process; empty: nothing. Taken out, this one knows it no more.
    std::string written_down(const FileNumber &file) const;
    std::string take_out(const FileNumber &file);
    void put_in(const FileNumber &file, const std::string &known);

  private:
    const Made *find(const struct stat &file) const;

    std::map<FileNumber, Made> m_files;
};

} // namespace engine
