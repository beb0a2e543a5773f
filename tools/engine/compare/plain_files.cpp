#include "tools/engine/compare/plain_files.h"

#include "platform/core.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/units.h"

#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr int64_t kDosUnit = 100; // of the times in a record of DOS attributes

class WorkingDirectory {
  public:
    WorkingDirectory() : m_before(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)) {}
    WorkingDirectory(const WorkingDirectory &) = delete;
    WorkingDirectory &operator=(const WorkingDirectory &) = delete;
    ~WorkingDirectory() { (void)!::fchdir(m_before.get()); }
    bool enter(int directory) const { return m_before.get() >= 0 && ::fchdir(directory) == 0; }

  private:
    Descriptor m_before;
};

// In the working directory. Nothing: the entry itself has to be asked.
std::optional<VLIBCStat> plain(const std::string &name) {
    constexpr uint32_t fields = VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME;
    VLIBCStat found{};
    const bool known = VLIBCFileLStat(name.c_str(), fields, &found) == 0 && S_ISREG(found.st.st_mode) &&
                       found.st.st_nlink == 1 && found.st.st_blocks * kStatBlock >= found.st.st_size;
    return known ? std::optional(found) : std::nullopt;
}

// A record of DOS attributes has its times in units of its own.
bool same_creation(const timespec &one, const timespec &other) {
    const int64_t seconds = one.tv_sec - other.tv_sec;
    return std::abs(seconds) <= 1 && std::abs(seconds * kSecond + (one.tv_nsec - other.tv_nsec)) < kDosUnit;
}

bool same(const VLIBCStat &one, const VLIBCStat &other) {
    const uint32_t compared = ~uint32_t{VLIBC_ATTR_ARCHIVE};
    return one.st.st_size == other.st.st_size && one.st.st_mode == other.st.st_mode &&
           one.st.st_uid == other.st.st_uid && one.st.st_gid == other.st.st_gid &&
           same_time(one.st.st_mtim, other.st.st_mtim) && same_creation(one.createTime, other.createTime) &&
           ((one.attributes ^ other.attributes) & compared) == 0 &&
           (one.attributes & ~other.attributes & VLIBC_ATTR_ARCHIVE) == 0;
}

// Whether files have nothing beside them, and files that are made in it no ACL that nobody gave them.
bool is_plain(int directory, const VolumeFacts &facts) {
    const std::string path = "/proc/self/fd/" + std::to_string(directory) + "/.";
    return facts.noDirectory && (facts.store == StoreKind::ea_directory || facts.store == StoreKind::file_ea) &&
           ::getxattr(path.c_str(), "system.posix_acl_default", nullptr, 0) < 0;
}

} // namespace

std::vector<std::string> files_to_compare(const DirectoryPair &pair, const std::vector<std::string> &names) {
    const WorkingDirectory working;
    std::vector<std::optional<VLIBCStat>> seen(names.size());
    // Where a creation time may be a guess a comparison of the entries says what that is worth.
    if (names.empty() || !pair.copyFacts.creationTimes || !is_plain(pair.source, pair.sourceFacts) ||
        !is_plain(pair.copy, pair.copyFacts) || !working.enter(pair.source)) {
        return names;
    }
    for (size_t at = 0; at < names.size(); ++at) {
        if (::llistxattr(names[at].c_str(), nullptr, 0) == 0) {
            seen[at] = plain(names[at]);
        }
    }
    std::vector<std::string> rest;
    const bool entered = working.enter(pair.copy);
    for (size_t at = 0; at < names.size(); ++at) {
        const auto there = seen[at] && entered ? plain(names[at]) : std::nullopt;
        if (!there || !same(*seen[at], *there)) {
            rest.push_back(names[at]);
        }
    }
    return rest;
}

} // namespace engine
