// Entries that have nothing but what every entry has: bytes, owner, mode, times and a record of DOS attributes. They
// are copied by descriptors, in the open directories, with as few calls as that takes.
#pragma once

#include "platform/core.h"

#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>

namespace engine {

// Of two directories on volumes of the kernel's own, which list all attributes of a file, by who may give owners. The
// caller sees to it that a new file gets no ACL from its directory, and that nothing is kept beside the entries.
//
// An empty answer: it is another kind of entry, somebody is at work on it, or something has failed. Then nothing is
// left of it, and whoever goes the long way finds out what it was.
class PlainCopy {
  public:
    // Whether the platform keeps DOS attributes and creation times in a record, and writes it at once.
    static bool can();

    // What the entry itself shows; a link is a link. DOS attributes are those of an entry without a record.
    static std::optional<VLIBCStat> look(int directory, const std::string &name);
    // The same of an open directory, with its record: it has no other attribute.
    static std::optional<VLIBCStat> look(int directory);
    // Whether the file has no attributes but the record, as far as that is known: for a guess at what lies beside it.
    static bool is_bare(int directory, const std::string &name);

    // The copy has no name, or a private one, until it has everything and was compared, and gets its own where there is
    // none: it is what stands there then. `source`: what look() has said.
    std::optional<struct stat> file(int from, const std::string &name, const VLIBCStat &source, int to);
    std::optional<struct stat> link(int from, const std::string &name, const VLIBCStat &source, int to);
    // What a directory that was made gets once its entries are there. False: not all of it is.
    bool finish_directory(int from, const VLIBCStat &source, int to);

    // A larger file is worth the long way, which tells how far it is.
    static constexpr off_t kLargest = off_t{1} << 20;

  private:
    bool fill(int from, int to, off_t size);
    bool complete(int from, bool record, const VLIBCStat &source, int to, struct stat &made);

    std::unique_ptr<char[]> m_bytes = nullptr;
    bool m_unnamed = true; // the volume makes files without a name, as far as is known
    bool m_known = false;  // who owned the last file that was made, before it was given away
    uid_t m_owner = 0;
    gid_t m_group = 0;
};

} // namespace engine
