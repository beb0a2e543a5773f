// The directory that a plan's entries go into: one that is there, or that a run would have made by then.
#pragma once

#include "tools/engine/plan/rehearsal.h"
#include "tools/engine/transfer/held_directory.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <utility>
#include <vector>

namespace engine {

// Room on one volume, as far as the plan has come.
struct UsedRoom {
    std::string directory; // the first one that was asked there
    FreeRoom free = {};
    bool probed = false;
    Room now = {}, most = {};
    Room all = {}; // as `now`, had there been room for everything

    // Whether there is as much more; it is noted as needed in any case.
    bool has(const Room &wanted);
    // `found`: there was room for it.
    void take(const Room &needed, const Room &back, bool found);
};

// A directory that is asked what becomes of entries in it, for all directories that nothing tells apart.
struct AskedVolume {
    HeldDirectory directory; // outlives the rehearsal
    std::unique_ptr<Rehearsal> rehearsal;
    UsedRoom *room = nullptr;
    std::vector<std::pair<UsedRoom *, int>> quotas = {}; // that bind there, with the errno of who wants more
    uint32_t project = 0;                                // of new entries, into which no others are renamed or linked
};

// What was needed of a volume so far, so that it can be put back.
class RoomsBefore {
  public:
    explicit RoomsBefore(const AskedVolume &volume) : m_all{{volume.room, *volume.room}} {
        for (const auto &[room, number] : volume.quotas) {
            m_all.emplace_back(room, *room);
        }
    }
    void put_back() const {
        for (const auto &[room, before] : m_all) {
            *room = before;
        }
    }

  private:
    std::vector<std::pair<UsedRoom *, UsedRoom>> m_all;
};

class AskedVolumes {
  public:
    AskedVolumes(bool probe, bool reversibleNames) : m_probe(probe), m_reversibleNames(reversibleNames) {}
    // For entries in an open directory.
    AskedVolume &of(const HeldDirectory &directory);
    const std::map<dev_t, UsedRoom> &rooms() const { return m_rooms; }
    // Of projects: the volume's own is told with its room.
    std::vector<std::pair<uint32_t, UsedRoom>> projects() const;

  private:
    bool m_probe, m_reversibleNames;
    std::map<std::string, AskedVolume> m_known;
    void add_quotas(const HeldDirectory &directory, AskedVolume &asked);

    std::map<dev_t, UsedRoom> m_rooms;
    std::map<std::tuple<dev_t, int, uint32_t>, UsedRoom> m_quotas;
};

struct Destination {
    std::string path;
    HeldDirectory there = {}; // closed: it is not there yet
    AskedVolume *volume = nullptr;
    int64_t names = 0;                 // bytes of those that the run makes in it
    std::optional<bool> hasStore = {}; // an "@eaDir", by then
    std::map<std::string, std::string> planned =
        {}; // what the run has made by then: the volume's key, the source's name

    bool is_there() const { return there.is_open(); }
};

} // namespace engine
