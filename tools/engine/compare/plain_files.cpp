#include "tools/engine/compare/plain_files.h"

#include "platform/core.h"
#include "tools/engine/compare/entry_view.h"
#include "tools/engine/compare/plain_stores.h"
#include "tools/engine/store/store.h"
#include "tools/engine/walk/units.h"
#include "tools/engine/walk/working_directory.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#pragma weak VLIBCFileIsRecord

namespace engine {
namespace {

constexpr int64_t kDosUnit = 100;    // of the times in a record of DOS attributes
constexpr size_t kAtOnce = 256;      // names, so that a directory of any size takes no memory
constexpr size_t kMostListed = 1024; // bytes of names of attributes
constexpr char kAccessAcl[] = "system.posix_acl_access";

// What a regular file shows of itself.
struct PlainStatus {
    mode_t mode;
    uid_t owner;
    gid_t group;
    int64_t size;
    timespec modified, changed, created;
    uint32_t attributes; // of DOS
};

// The attributes of a file that has none but those of which the name is enough.
struct PlainAttributes {
    std::string names = {}; // sorted, each with a NUL
    bool record = false;    // there is one of DOS attributes
    bool acl = false;       // so is an ACL

    bool operator==(const PlainAttributes &other) const { return names == other.names; }
};

// All of this in the working directory. Nothing: the entry itself has to be asked.

std::optional<PlainStatus> status_of_plain(const std::string &name) {
    constexpr uint32_t fields = VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME;
    VLIBCStat found{};
    if (VLIBCFileLStat(name.c_str(), fields, &found) != 0 || !S_ISREG(found.st.st_mode) || found.st.st_nlink != 1 ||
        found.st.st_blocks * kStatBlock < found.st.st_size) {
        return std::nullopt;
    }
    return PlainStatus{found.st.st_mode, found.st.st_uid,  found.st.st_gid,  found.st.st_size,
                       found.st.st_mtim, found.st.st_ctim, found.createTime, found.attributes};
}

// Of a file that has no record, on a platform that keeps DOS attributes and creation times in one: it has none, and was
// created when its volume says so.
std::optional<PlainStatus> status_without_record(const std::string &name) {
    const auto time = [](const struct statx_timestamp &stamp) { return timespec{stamp.tv_sec, stamp.tv_nsec}; };
    struct statx found {};
    if (::statx(AT_FDCWD, name.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &found) != 0 ||
        (found.stx_mask & STATX_BTIME) == 0 || !S_ISREG(found.stx_mode) || found.stx_nlink != 1 ||
        found.stx_blocks * kStatBlock < found.stx_size) {
        return std::nullopt;
    }
    return PlainStatus{
        found.stx_mode,        found.stx_uid,         found.stx_gid,         static_cast<int64_t>(found.stx_size),
        time(found.stx_mtime), time(found.stx_ctime), time(found.stx_btime), 0};
}

std::optional<PlainAttributes> plain_attributes(const std::string &name) {
    std::array<char, kMostListed> list;
    const ssize_t size = ::llistxattr(name.c_str(), list.data(), list.size());
    if (size < 0) {
        return std::nullopt;
    }
    PlainAttributes own;
    std::vector<std::string_view> names;
    for (std::string_view rest(list.data(), static_cast<size_t>(size)); !rest.empty();) {
        const std::string_view one = rest.substr(0, rest.find('\0'));
        rest.remove_prefix(std::min(rest.size(), one.size() + 1));
        if (is_representation(one)) {
            own.record = own.record || VLIBCFileIsRecord == nullptr || VLIBCFileIsRecord(one.data()) == 1;
            continue;
        }
        own.acl = own.acl || one == kAccessAcl;
        if (one != kAccessAcl && (!one.starts_with("user.") || one == kMetadataName)) {
            return std::nullopt;
        }
        names.push_back(one);
    }
    std::ranges::sort(names);
    for (const std::string_view one : names) {
        own.names.append(one).push_back('\0');
    }
    return own;
}

// A record of DOS attributes has its times in units of its own.
bool same_creation(const timespec &one, const timespec &other) {
    const int64_t seconds = one.tv_sec - other.tv_sec;
    return std::abs(seconds) <= 1 && std::abs(seconds * kSecond + (one.tv_nsec - other.tv_nsec)) < kDosUnit;
}

bool same_plain(const PlainStatus &one, const PlainStatus &other) {
    const uint32_t compared = ~uint32_t{VLIBC_ATTR_ARCHIVE};
    return one.size == other.size && one.mode == other.mode && one.owner == other.owner && one.group == other.group &&
           same_time(one.modified, other.modified) && same_creation(one.created, other.created) &&
           ((one.attributes ^ other.attributes) & compared) == 0 &&
           (one.attributes & ~other.attributes & VLIBC_ATTR_ARCHIVE) == 0;
}

bool is_before(const timespec &one, const timespec &other) {
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

bool has_kind(const VolumeFacts &facts) {
    return facts.store == StoreKind::ea_directory || facts.store == StoreKind::file_ea;
}

struct PlainSource {
    PlainStatus status;
    PlainAttributes own;
};

class PlainLooks {
  public:
    PlainLooks(const DirectoryPair &pair, bool attributes, const PlainStores &stores)
        : m_pair(pair), m_attributes(attributes), m_stores(stores) {}

    // Those of the names, at most so many, that are to be compared.
    void add(const std::string *names, size_t count, std::vector<std::string> &rest) {
        std::array<std::optional<PlainSource>, kAtOnce> sources;
        bool entered = m_working.enter(m_pair.source);
        for (size_t at = 0; at < count && entered; ++at) {
            sources[at] = source(names[at]);
        }
        entered = entered && m_working.enter(m_pair.copy);
        for (size_t at = 0; at < count; ++at) {
            if (!entered || !sources[at] || !is_copied(*sources[at], names[at]) || !m_stores.are_same(names[at])) {
                rest.push_back(names[at]);
            }
        }
    }

  private:
    std::optional<PlainSource> source(const std::string &name) const {
        auto own = plain_attributes(name);
        if (!own || (!own->names.empty() && !m_attributes) || (own->acl && m_pair.inherits)) {
            return std::nullopt;
        }
        const bool record = own->record || VLIBCFileIsRecord == nullptr;
        const auto status = record ? status_of_plain(name) : status_without_record(name);
        if (!status || (!own->names.empty() && !is_before(status->changed, m_pair.begun))) {
            return std::nullopt;
        }
        return PlainSource{*status, std::move(*own)};
    }
    bool is_copied(const PlainSource &source, const std::string &name) const {
        const bool listed = !source.own.names.empty() || m_pair.inherits;
        const auto there = status_of_plain(name);
        return there && same_plain(source.status, *there) && (!listed || plain_attributes(name) == source.own);
    }

    const DirectoryPair &m_pair;
    bool m_attributes;
    const PlainStores &m_stores;
    WorkingDirectory m_working;
};

} // namespace

bool hands_on_an_acl(int directory) {
    const std::string path = "/proc/self/fd/" + std::to_string(directory) + "/.";
    return ::getxattr(path.c_str(), "system.posix_acl_default", nullptr, 0) >= 0;
}

std::vector<std::string> files_to_compare(const DirectoryPair &pair, const std::vector<std::string> &names) {
    const VolumeFacts &source = pair.sourceFacts, &copy = pair.copyFacts;
    const bool own =
        source.store == copy.store && lists_all_attributes(source.magic) && lists_all_attributes(copy.magic);
    const bool stores = !source.noDirectory || !copy.noDirectory;
    // Where a creation time may be a guess a comparison of the entries says what that is worth.
    if (names.empty() || !copy.creationTimes || !has_kind(source) || !has_kind(copy) || (stores && !own) ||
        hands_on_an_acl(pair.source) || hands_on_an_acl(pair.copy)) {
        return names;
    }
    PlainStores beside;
    if (stores && !beside.open(pair.source, pair.copy)) {
        return names;
    }
    std::vector<std::string> rest;
    PlainLooks looks(pair, own, beside);
    for (size_t from = 0; from < names.size(); from += kAtOnce) {
        looks.add(&names[from], std::min(kAtOnce, names.size() - from), rest);
    }
    return rest;
}

} // namespace engine
