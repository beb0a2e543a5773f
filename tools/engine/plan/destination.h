// The directory that a plan's entries go into: one that is there, or that a run would have made by then.
#pragma once

#include "tools/engine/plan/rehearsal.h"
#include "tools/engine/transfer/held_directory.h"

#include <map>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace engine {

// Room on one volume, as far as the plan has come.
struct UsedRoom {
    std::string directory; // the first one that was asked there
    FreeRoom free = {};
    bool probed = false;
    Room now = {}, most = {};
};

// A directory that is asked what becomes of entries in it, for all directories that nothing tells apart.
struct AskedVolume {
    HeldDirectory directory; // outlives the rehearsal
    std::unique_ptr<Rehearsal> rehearsal;
    UsedRoom *room = nullptr;
};

class AskedVolumes {
  public:
    explicit AskedVolumes(bool probe) : m_probe(probe) {}
    // For entries in an open directory.
    AskedVolume &of(const HeldDirectory &directory);
    const std::map<dev_t, UsedRoom> &rooms() const { return m_rooms; }

  private:
    bool m_probe;
    std::map<std::string, AskedVolume> m_known;
    std::map<dev_t, UsedRoom> m_rooms;
};

struct Destination {
    std::string path;
    HeldDirectory there = {}; // closed: it is not there yet
    AskedVolume *volume = nullptr;
    std::map<std::string, std::string> planned =
        {}; // what the run has made by then: the volume's key, the source's name

    bool is_there() const { return there.is_open(); }
};

} // namespace engine
