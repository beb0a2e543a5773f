#include "tools/engine/plan/destination.h"

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
    return fmt::format("{} {} {} {} {}", found.st_dev, directory.type(), found.st_mode & S_ISGID,
                       (found.st_mode & S_ISGID) != 0 ? found.st_gid : 0,
                       std::string(acl, size < 0 ? 0 : static_cast<size_t>(size)));
}

} // namespace

AskedVolume &AskedVolumes::of(const HeldDirectory &directory) {
    AskedVolume &asked = m_known[inherited(directory)];
    if (asked.rehearsal == nullptr) {
        asked.directory = HeldDirectory(directory, ".");
        asked.rehearsal = std::make_unique<Rehearsal>(asked.directory.fd(), directory.type(), m_probe);
        const auto [room, isNew] = m_rooms.try_emplace(directory.device());
        asked.room = &room->second;
        if (isNew) {
            room->second.directory = directory.path();
            room->second.free = asked.rehearsal->room();
            room->second.probed = asked.rehearsal->probes();
        }
    }
    return asked;
}

} // namespace engine
