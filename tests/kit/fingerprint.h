// What a tree looks like, for comparing a copy with its source, or a tree with what it was before: every entry with
// everything that belongs to it.
#pragma once

#include <map>
#include <set>
#include <string>

namespace kit {

// Properties by name. "type", "mode", "owner", "modified", "accessed" and "created" (with nanoseconds), "acl" (access
// and default), "attributes" (DOS), "link" (a symbolic link's target), "device", "data" (size and digest), "holes",
// "xattrs" (names and values of the user's own).
using EntryPrint = std::map<std::string, std::string>;

class Fingerprint {
  public:
    // The tree at `root`, which is itself the entry ""; others go by their path below it. Names in `leftOut`, in any
    // directory, are passed over with what is below them. A tree that is not there has no entries. Throws
    // std::runtime_error for what cannot be read.
    static Fingerprint of(const std::string &root, const std::set<std::string> &leftOut = {});

    // Nothing when both are the same but for the properties in `ignored`; else a line for each difference.
    std::string differenceTo(const Fingerprint &other, const std::set<std::string> &ignored = {}) const;

    const std::map<std::string, EntryPrint> &entries() const { return m_entries; }

  private:
    std::map<std::string, EntryPrint> m_entries;
};

} // namespace kit
