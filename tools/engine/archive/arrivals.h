// What a backup has proven to have arrived, until its archive bits are cleared. Of any number of entries no more than a
// little is held in memory.
#pragma once

#include "tools/engine/report/outcome.h"
#include "tools/engine/transfer/held_directory.h"
#include "tools/engine/transfer/ledger.h"
#include "tools/engine/walk/descriptor.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace engine {

struct Arrival {
    std::string source, destination; // below the two tops; empty: the tops themselves
    bool directory = false;
    // Of a file: what it was, and a mark of what was kept beside it (StoreWitness).
    struct stat status = {};
    uint64_t store = 0;
};

class Arrivals {
  public:
    // `beside`: where room is taken for what does not stay in memory, under no name. It outlives this.
    explicit Arrivals(const HeldDirectory &beside) : m_beside(beside) {}

    // Throws Failure.
    void add(const Arrival &arrival);
    // How many names of a file of several names have arrived.
    int64_t names_of(const FileNumber &file) const;
    // In their order. Throws Failure where they cannot be read back.
    void each(const std::function<void(const Arrival &)> &visitor) const;

  private:
    void write_out();

    const HeldDirectory &m_beside;
    Descriptor m_file = Descriptor(-1);
    std::string m_records = {}; // behind those of the file
    std::map<FileNumber, int64_t> m_names;
};

// A new file in the directory, for this user alone, under no name where the volume can; else under a private one, which
// goes into `name`. Throws Failure.
Descriptor unnamed_file(const HeldDirectory &directory, std::string &name);

} // namespace engine
