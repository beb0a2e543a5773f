// The list of what a backup has brought, beside its destination: for people and for line-wise programs. Whole or not
// there at all.
//
//     # backup of /volume1/photos to /volume2/photos, 2026-11-22T14:03:07Z, incremental
//     copied	18004	2026/beach.jpg
//     same	122	notes.txt
//     # 2 entries, 18126 bytes, 0 failed
//
// Three fields with tabs between them: what became of the entry (copied; linked: another name of one that was; same: it
// stood there already, with this content), its bytes, and its path below the source, with the escapes of displayed().
#pragma once

#include "tools/engine/transfer/held_directory.h"
#include "tools/engine/walk/descriptor.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace engine {

class ArrivalList {
  public:
    // Begun under no name, or a private one, in the directory that holds `destination`, which is an absolute path and
    // need not exist. Throws Failure where that cannot be.
    ArrivalList(const std::string &source, const std::string &destination, std::time_t now, std::string_view kind);
    ArrivalList(const ArrivalList &) = delete;
    ArrivalList &operator=(const ArrivalList &) = delete;
    ~ArrivalList(); // removes what was not put in place

    // Throws Failure.
    void add(std::string_view what, int64_t bytes, const std::string &path);
    // Writes it out and gives it its name, "DESTINATION.2026-11-22T14-03-07Z.list", or "…Z002.list" and so on where one
    // of the same second stands. Answers its path. Throws Failure.
    std::string put_in_place(int64_t failed);

    const HeldDirectory &directory() const { return m_directory; }

  private:
    void write_out();
    bool named(const std::string &name) const;

    HeldDirectory m_directory;
    std::string m_base; // of the names that it may get
    std::string m_made; // private
    Descriptor m_file = Descriptor(-1);
    std::string m_text = {};
    int64_t m_entries = 0, m_bytes = 0;
};

} // namespace engine
