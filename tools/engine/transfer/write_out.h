// Getting what was made onto the disk, and hearing of it when that fails: the kernel tells such an error once, and only
// to who has held the file or the volume open since before.
#pragma once

#include "tools/engine/report/problem.h"
#include "tools/engine/transfer/held_directory.h"
#include "tools/engine/transfer/transfer_observer.h"
#include "tools/engine/transfer/transfer_options.h"
#include "tools/engine/walk/descriptor.h"

#include <map>
#include <optional>
#include <string>
#include <sys/types.h>

namespace engine {

// A file, with what is kept for it. `opened`: a descriptor of it from before it was written; -1: there is none.
std::optional<Problem> write_out_file(const HeldDirectory &directory, const std::string &name, int opened);
// The same, of which the kernel is asked then to let go of what it has in memory: whoever reads it next has it from the
// volume.
std::optional<Problem> let_go(const HeldDirectory &directory, const std::string &name);
// What is kept beside an entry, and where.
std::optional<Problem> write_out_store(const HeldDirectory &directory, const std::string &name);
// The names in a directory. A volume that has nothing of the kind is none that fails.
std::optional<Problem> write_out_directory(const HeldDirectory &directory);

// Volumes as a whole, for Sync::volume.
class VolumesToWriteOut {
  public:
    // Before anything is made there: from now on its errors are heard of.
    void begin(const HeldDirectory &directory);
    // All of the volume that a directory lies on.
    std::optional<Problem> write_out(const HeldDirectory &directory) const;
    // All that there are; the observer hears of each before and after it.
    void write_out(TransferObserver &observer);

  private:
    struct Volume {
        std::string directory;
        Descriptor opened;
    };
    static std::optional<Problem> write_out(const Volume &volume);

    std::map<dev_t, Volume> m_volumes;
};

} // namespace engine
