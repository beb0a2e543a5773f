#include "tools/engine/transfer/plain_copy.h"

#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/rename.h"
#include "tools/engine/walk/units.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <string_view>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#pragma weak VLIBCFileIsRecord
#pragma weak VLIBCFileFComplete

namespace engine {
namespace {

constexpr uint32_t kAllFields = VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME;
constexpr uint32_t kDosBits = VLIBC_ATTR_ARCHIVE | VLIBC_ATTR_HIDDEN | VLIBC_ATTR_SYSTEM;
constexpr mode_t kRights = 0777;
constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr size_t kMostNamesListed = 256; // bytes of names of attributes: those of a record are few

timespec plain_time(const struct statx_timestamp &stamp) {
    return {stamp.tv_sec, stamp.tv_nsec};
}

// A record has its time in units of 100 ns.
bool same_in_record(const timespec &one, const timespec &other) {
    constexpr int64_t unit = 100;
    const int64_t seconds = one.tv_sec - other.tv_sec;
    return std::abs(seconds) <= 1 && std::abs(seconds * kSecond + (one.tv_nsec - other.tv_nsec)) < unit;
}

std::optional<VLIBCStat> look_by(int directory, const char *name, int flags) {
    struct statx found {};
    if (::statx(directory, name, flags | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME, &found) != 0 ||
        (found.stx_mask & STATX_BTIME) == 0) {
        return std::nullopt;
    }
    VLIBCStat status{};
    status.st.st_dev = makedev(found.stx_dev_major, found.stx_dev_minor);
    status.st.st_ino = found.stx_ino;
    status.st.st_mode = found.stx_mode;
    status.st.st_nlink = found.stx_nlink;
    status.st.st_uid = found.stx_uid;
    status.st.st_gid = found.stx_gid;
    status.st.st_size = static_cast<off_t>(found.stx_size);
    status.st.st_blocks = static_cast<blkcnt_t>(found.stx_blocks);
    status.st.st_atim = plain_time(found.stx_atime);
    status.st.st_mtim = plain_time(found.stx_mtime);
    status.st.st_ctim = plain_time(found.stx_ctime);
    status.createTime = plain_time(found.stx_btime);
    return status;
}

// Whether a list of attributes that a call has filled is empty, or names the record alone, which it tells.
bool is_record_alone(const char *names, ssize_t size, bool &record) {
    record = size > 0;
    return size == 0 || (size > 0 && std::string_view(names).size() + 1 == static_cast<size_t>(size) &&
                         VLIBCFileIsRecord(names) == 1);
}

// Of an open file or directory. Nothing else is set on one that was just made.
bool has_record_alone(int fd, bool &record) {
    std::array<char, kMostNamesListed> names;
    return is_record_alone(names.data(), ::flistxattr(fd, names.data(), names.size()), record);
}

// Since it was first looked at.
bool is_unchanged(const struct stat &before, int fd) {
    struct stat now {};
    return ::fstat(fd, &now) == 0 && now.st_dev == before.st_dev && now.st_ino == before.st_ino &&
           now.st_size == before.st_size && now.st_mode == before.st_mode && now.st_uid == before.st_uid &&
           now.st_gid == before.st_gid && same_time(now.st_mtim, before.st_mtim) &&
           same_time(now.st_ctim, before.st_ctim);
}

bool is_given(const VLIBCStat &source, const VLIBCStat &copy) {
    return ((source.st.st_mode ^ copy.st.st_mode) & (kModeBits | S_IFMT)) == 0 && source.st.st_uid == copy.st.st_uid &&
           source.st.st_gid == copy.st.st_gid && same_time(source.st.st_mtim, copy.st.st_mtim) &&
           same_in_record(source.createTime, copy.createTime) &&
           copy.attributes == (source.attributes | VLIBC_ATTR_ARCHIVE) &&
           (S_ISDIR(source.st.st_mode) || source.st.st_size == copy.st.st_size);
}

// What stands under a private name, and goes where it does not get its own.
class PlainMade {
  public:
    explicit PlainMade(int directory) : m_directory(directory), m_name(next_private_name()) {}
    PlainMade(const PlainMade &) = delete;
    PlainMade &operator=(const PlainMade &) = delete;
    ~PlainMade() {
        if (m_isThere) {
            (void)clear_away(m_directory, m_name);
        }
    }
    const char *name() const { return m_name.c_str(); }
    void is_there() { m_isThere = true; }
    bool place(const std::string &name) {
        m_isThere = !rename_without_replacing(m_directory, m_name, m_directory, name);
        return !m_isThere;
    }

  private:
    int m_directory;
    std::string m_name;
    bool m_isThere = false;
};

} // namespace

bool PlainCopy::can() {
    return VLIBCFileFComplete != nullptr && VLIBCFileIsRecord != nullptr;
}

std::optional<VLIBCStat> PlainCopy::look(int directory, const std::string &name) {
    return look_by(directory, name.c_str(), AT_SYMLINK_NOFOLLOW);
}

std::optional<VLIBCStat> PlainCopy::look(int directory) {
    VLIBCStat status{};
    bool record = false;
    if (!has_record_alone(directory, record)) {
        return std::nullopt;
    }
    if (!record) {
        return look_by(directory, "", AT_EMPTY_PATH);
    }
    const bool known = VLIBCFileFStat(directory, kAllFields, &status, 0) == 0 && (status.attributes & ~kDosBits) == 0;
    return known ? std::optional(status) : std::nullopt;
}

bool PlainCopy::is_bare(int directory, const std::string &name) {
    std::array<char, kMostNamesListed> names;
    const std::string path = "/proc/self/fd/" + std::to_string(directory) + "/" + name;
    bool record = false;
    return is_record_alone(names.data(), ::llistxattr(path.c_str(), names.data(), names.size()), record);
}

bool PlainCopy::fill(int from, int to, off_t size) {
    if (m_bytes == nullptr) {
        m_bytes = std::make_unique_for_overwrite<char[]>(static_cast<size_t>(kLargest));
    }
    const auto wanted = static_cast<size_t>(size);
    size_t got = 0;
    while (got < wanted) {
        const ssize_t read = ::read(from, m_bytes.get() + got, wanted - got);
        if (read <= 0) {
            return false;
        }
        got += static_cast<size_t>(read);
    }
    return write_all(to, {m_bytes.get(), got});
}

// Owner, mode, times and record, which are looked at afterwards. Mostly a new file has the owner and the mode already.
bool PlainCopy::complete(int from, bool record, const VLIBCStat &source, int to, struct stat &made) {
    const bool directory = S_ISDIR(source.st.st_mode);
    const timespec times[] = {source.st.st_atim, source.st.st_mtim, source.createTime};
    bool owner = directory || (m_known && (source.st.st_uid != m_owner || source.st.st_gid != m_group));
    bool mode = directory, timed = false;
    for (int tries = 0; tries < 2; ++tries) {
        VLIBCStat there{};
        if ((owner && ::fchown(to, source.st.st_uid, source.st.st_gid) != 0) ||
            (mode && ::fchmod(to, source.st.st_mode & kModeBits) != 0) ||
            (!timed && VLIBCFileFComplete(record ? from : -1, to, source.st.st_mode, times,
                                          source.attributes | VLIBC_ATTR_ARCHIVE) != 0) ||
            VLIBCFileFStat(to, kAllFields, &there, 0) != 0) {
            return false;
        }
        if (!owner) {
            m_known = true;
            m_owner = there.st.st_uid;
            m_group = there.st.st_gid;
        }
        if (is_given(source, there)) {
            made = there.st;
            return true;
        }
        timed = true;
        owner = source.st.st_uid != there.st.st_uid || source.st.st_gid != there.st.st_gid;
        mode = ((source.st.st_mode ^ there.st.st_mode) & kModeBits) != 0;
        if (!owner && !mode) {
            return false;
        }
    }
    return false;
}

std::optional<struct stat> PlainCopy::file(int from, const std::string &name, const VLIBCStat &source, int to) {
    if (source.st.st_nlink != 1 || source.st.st_size > kLargest || (source.st.st_mode & kModeBits & ~kRights) != 0 ||
        source.st.st_blocks * kStatBlock < source.st.st_size) {
        return std::nullopt;
    }
    const Descriptor opened(::openat(from, name.c_str(), kReadFlags));
    bool record = false;
    if (opened.get() < 0 || !has_record_alone(opened.get(), record)) {
        return std::nullopt;
    }
    VLIBCStat known = source;
    if (record && (VLIBCFileFStat(opened.get(), kAllFields, &known, 0) != 0 || (known.attributes & ~kDosBits) != 0)) {
        return std::nullopt;
    }
    // Without a name nobody finds it, and nothing is left of it when this is killed.
    const mode_t mode = known.st.st_mode & kRights;
    Descriptor made(m_unnamed ? ::openat(to, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode) : -1);
    std::optional<PlainMade> named;
    m_unnamed = made.get() >= 0;
    if (!m_unnamed) {
        made = Descriptor(
            ::openat(to, named.emplace(to).name(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    }
    if (made.get() < 0) {
        return std::nullopt;
    }
    if (named) {
        named->is_there();
    }
    struct stat there {};
    if (!fill(opened.get(), made.get(), known.st.st_size) ||
        !complete(opened.get(), record, known, made.get(), there) || !is_unchanged(source.st, opened.get())) {
        return std::nullopt;
    }
    const bool placed = named ? named->place(name) : ::linkat(made.get(), "", to, name.c_str(), AT_EMPTY_PATH) == 0;
    m_unnamed = m_unnamed && (placed || errno != ENOENT); // who has not all of root's rights is refused so
    return placed ? std::optional(there) : std::nullopt;
}

std::optional<struct stat> PlainCopy::link(int from, const std::string &name, const VLIBCStat &source, int to) {
    std::array<char, PATH_MAX> target, made;
    const ssize_t size = ::readlinkat(from, name.c_str(), target.data(), target.size() - 1);
    if (size != source.st.st_size || source.st.st_nlink != 1 || !is_bare(from, name)) {
        return std::nullopt;
    }
    target[static_cast<size_t>(size)] = '\0';
    PlainMade copy(to);
    if (::symlinkat(target.data(), to, copy.name()) != 0) {
        return std::nullopt;
    }
    copy.is_there();
    // Whoever owns the directory may put something else under that name: what is given away is the link that was made.
    const Descriptor held(::openat(to, copy.name(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    const timespec times[] = {source.st.st_atim, source.st.st_mtim};
    struct stat there {};
    const auto is_made = [&] {
        return ::fstat(held.get(), &there) == 0 && S_ISLNK(there.st_mode) && there.st_nlink == 1 &&
               ::readlinkat(held.get(), "", made.data(), made.size()) == size &&
               std::string_view(made.data(), static_cast<size_t>(size)) == target.data();
    };
    const bool given = is_made() && there.st_uid == ::geteuid() &&
                       ::fchownat(held.get(), "", source.st.st_uid, source.st.st_gid, AT_EMPTY_PATH) == 0 &&
                       ::utimensat(held.get(), "", times, AT_EMPTY_PATH) == 0 && is_made() &&
                       there.st_uid == source.st.st_uid && there.st_gid == source.st.st_gid &&
                       same_time(there.st_mtim, source.st.st_mtim);
    return given && copy.place(name) ? std::optional(there) : std::nullopt;
}

bool PlainCopy::finish_directory(int from, const VLIBCStat &source, int to) {
    bool record = false;
    struct stat there {};
    return has_record_alone(from, record) && complete(from, record, source, to, there);
}

} // namespace engine
