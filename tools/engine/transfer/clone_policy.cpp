#include "tools/engine/transfer/clone_policy.h"

#include "copy/copy.h"
#include "tools/engine/walk/descriptor.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

namespace engine {
namespace {

constexpr uint32_t kXfs = 0x58465342;

// Tried with two files that have no name and no data. Where none can be made the copy finds out.
bool has_reflink(int directory) {
    const std::string path = "/proc/self/fd/" + std::to_string(directory);
    const Descriptor one(::open(path.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    const Descriptor other(::open(path.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    return one.get() < 0 || other.get() < 0 || ::ioctl(one.get(), FICLONE, other.get()) == 0;
}

std::pair<dev_t, ino_t> place_of(const HeldDirectory &directory) {
    struct stat found {};
    (void)::fstat(directory.fd(), &found);
    return {found.st_dev, found.st_ino};
}

} // namespace

bool ClonePolicy::can(const HeldDirectory &from, const HeldDirectory &to) {
    const uint32_t magic = to.facts().magic;
    if (magic != from.facts().magic || (magic != BTRFS_SUPER_MAGIC && magic != kXfs)) {
        return false;
    }
    if (magic == BTRFS_SUPER_MAGIC) {
        return true; // its subvolumes are devices of their own; two volumes refuse
    }
    if (from.device() != to.device()) {
        return false;
    }
    const auto known = m_xfs.find(to.device());
    return known != m_xfs.end() ? known->second : m_xfs.emplace(to.device(), has_reflink(to.fd())).first->second;
}

bool ClonePolicy::wants(const HeldDirectory &from, const HeldDirectory &to) {
    return m_clone != Clone::never && can(from, to) && (m_move || insists() || is_allowed(from, to));
}

bool ClonePolicy::is_allowed(const HeldDirectory &from, const HeldDirectory &to) {
    if (!m_switch) {
        m_switch = VEXOFileCopyReflinkIsEnabled() == 1;
    }
    if (!*m_switch || to.facts().magic != BTRFS_SUPER_MAGIC) {
        return *m_switch;
    }
    if (const auto pair = std::pair(place_of(from), place_of(to)); m_askedFor != pair) {
        m_askedFor = pair;
        m_allowed = VEXOFileCopyIsCloneable(from.itself().c_str(), to.itself().c_str(), 0) == 0;
    }
    return m_allowed;
}

} // namespace engine
