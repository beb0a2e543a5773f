#include "tools/engine/plan/destination.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/xattr.h>

namespace engine {
namespace {

// What new entries in a directory get from it beside its volume.
std::string inherited(const HeldDirectory &directory) {
    struct stat found {};
    char acl[4096];
    const ssize_t size = ::getxattr(directory.itself().c_str(), "system.posix_acl_default", acl, sizeof acl);
    (void)::fstat(directory.fd(), &found);
    return fmt::format("{} {} {} {} {} {}", heir_project(directory.fd()), found.st_dev, directory.type(),
                       found.st_mode & S_ISGID, (found.st_mode & S_ISGID) != 0 ? found.st_gid : 0,
                       std::string(acl, size < 0 ? 0 : static_cast<size_t>(size)));
}

} // namespace

bool UsedRoom::has(const Room &wanted) {
    const Room sum{now.bytes + wanted.bytes, now.inodes + wanted.inodes};
    most = {std::max(most.bytes, all.bytes + wanted.bytes), std::max(most.inodes, all.inodes + wanted.inodes)};
    const auto holds = [](const std::optional<int64_t> &there, int64_t number) { return !there || number <= *there; };
    return holds(free.bytes, sum.bytes) && holds(free.inodes, sum.inodes);
}

void UsedRoom::take(const Room &needed, const Room &back, bool found) {
    const auto add = [&](Room &room) {
        room.bytes += needed.bytes - back.bytes;
        room.inodes += needed.inodes - back.inodes;
    };
    add(all);
    if (found) {
        add(now);
    }
}

AskedVolume &AskedVolumes::of(const HeldDirectory &directory) {
    AskedVolume &asked = m_known[inherited(directory)];
    if (asked.rehearsal == nullptr) {
        asked.directory = HeldDirectory(directory, ".");
        add_quotas(directory, asked); // before anything is made there
        asked.rehearsal =
            std::make_unique<Rehearsal>(asked.directory.fd(), directory.type(), m_probe, m_reversibleNames);
        const auto [room, isNew] = m_rooms.try_emplace(directory.device());
        asked.room = &room->second;
        if (isNew) {
            room->second.directory = directory.path();
            room->second.free = asked.rehearsal->room();
            room->second.probed = asked.rehearsal->probes();
        }
        asked.project = heir_project(directory.fd());
        for (const auto &[quota, refusal] : asked.quotas) {
            quota->probed = asked.rehearsal->probes();
        }
    }
    return asked;
}

void AskedVolumes::add_quotas(const HeldDirectory &directory, AskedVolume &asked) {
    for (const Quota &quota : quotas_in(directory.fd())) {
        const auto [room, isNew] = m_quotas.try_emplace({directory.device(), quota.kind, quota.id});
        if (isNew) {
            room->second.directory = directory.path();
            room->second.free.bytes = quota.bytes;
            room->second.free.inodes = quota.inodes;
        }
        asked.quotas.emplace_back(&room->second, quota.refusal);
    }
}

std::vector<std::pair<uint32_t, UsedRoom>> AskedVolumes::projects() const {
    std::vector<std::pair<uint32_t, UsedRoom>> all;
    for (const auto &[key, room] : m_quotas) {
        if (std::get<1>(key) == kProjectQuota) {
            all.emplace_back(std::get<2>(key), room);
        }
    }
    return all;
}

} // namespace engine
