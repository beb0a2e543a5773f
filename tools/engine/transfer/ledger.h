// What only one process may know where several share a request: what the run has made, and what has become of the names
// of one file. Without one a process is alone and knows it all itself.
#pragma once

#include "tools/engine/compare/linked_names.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>

namespace engine {

using FileNumber = std::pair<dev_t, ino_t>; // a volume, and an inode on it

class Ledger {
  public:
    enum class Kind : uint8_t { entry, directory };

    Ledger() = default;
    Ledger(const Ledger &) = delete;
    Ledger &operator=(const Ledger &) = delete;
    virtual ~Ledger() = default;

    // The run has made it. The mark tells the place and the name at the source.
    virtual void made(Kind kind, const struct stat &entry, size_t mark) = 0;
    // That mark, of what stands there, and of several the one with this place: nothing where the run has not made it.
    // What this process alone has made it need not know.
    virtual std::optional<size_t> mark_of(Kind kind, const struct stat &there, uint32_t place) = 0;

    // Whether a file of several names, or one that has had several, went before.
    virtual bool has_linked_files() const = 0;
    // What is known of such a file, as LinkedFiles writes it down. Until it is given back nobody else gets it: who asks
    // for it waits.
    virtual std::string take(const FileNumber &file) = 0;
    virtual void give_back(const FileNumber &file, const std::string &known) = 0;
    // What is to be known of it after a kill, as LinkNotes writes it down, is noted now.
    virtual void note(const std::string &record) = 0;
    // One of its names has arrived.
    virtual void named(const LinkedName &name) = 0;
};

} // namespace engine
