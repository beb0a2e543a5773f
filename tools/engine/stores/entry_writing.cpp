#include "tools/engine/stores/entry_writing.h"

#include "ea/ea.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/store/apple_double.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/store/store.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr char kTimeOfMetadata[] = "user.vexo.filea.flushtime";
constexpr uint32_t kFinderInfoEntryId = 9;

std::string itself_of(int directory) {
    return fmt::format("/proc/self/fd/{}", directory);
}

} // namespace

KeepTimes::KeepTimes(int directory) : m_directory(directory), m_known(::fstat(directory, &m_before) == 0) {}

KeepTimes::~KeepTimes() {
    struct stat now {};
    if (!m_known || ::fstat(m_directory, &now) != 0 ||
        (now.st_mtim.tv_sec == m_before.st_mtim.tv_sec && now.st_mtim.tv_nsec == m_before.st_mtim.tv_nsec)) {
        return;
    }
    const timespec times[2] = {m_before.st_atim, m_before.st_mtim};
    (void)::utimensat(AT_FDCWD, itself_of(m_directory).c_str(), times, 0);
}

void take_rights_of_entry(const struct stat &entry, int fd) {
    struct stat own {};
    if (::fstat(fd, &own) != 0) {
        throw_errno("the new form of its store cannot be looked at");
    }
    const bool other = own.st_uid != entry.st_uid || own.st_gid != entry.st_gid;
    if (other && ::fchown(fd, entry.st_uid, entry.st_gid) != 0 && errno != EPERM && errno != EINVAL) {
        throw_errno("the new form of its store cannot be given its owner");
    }
    give_mode(fd, entry.st_mode & 0666);
}

void put_finder_info(int fd, const std::string &finderInfo) {
    std::string bytes(size_t{1} << 16, '\0');
    const ssize_t got = ::pread(fd, bytes.data(), bytes.size(), 0);
    if (got < 0) {
        throw_errno("the resource file cannot be read");
    }
    bytes.resize(static_cast<size_t>(got));
    const AppleDouble parsed = parse_apple_double(bytes, UINT64_MAX);
    const auto entry = std::ranges::find(parsed.entries, kFinderInfoEntryId, &AppleDouble::Entry::id);
    if (entry == parsed.entries.end() || entry->length < finderInfo.size()) {
        throw Failure("the resource file has no place for the Finder Info");
    }
    if (::pwrite(fd, finderInfo.data(), finderInfo.size(), static_cast<off_t>(entry->offset)) !=
        static_cast<ssize_t>(finderInfo.size())) {
        throw_errno("the new form of its store cannot be written");
    }
}

// The time first: an attribute without it is what nothing would tell from a whole one.
void create_metadata(const std::string &entry, const std::string &value) {
    forget_last_error();
    check(VEXOEAFileEAWriteFlushTime(entry.c_str(), 0), "the metadata attribute cannot be set");
    if (::setxattr(entry.c_str(), kMetadataName, value.data(), value.size(), XATTR_CREATE) != 0) {
        const int number = errno;
        if (number != EEXIST) { // somebody else's, which it would be the time of
            (void)::removexattr(entry.c_str(), kTimeOfMetadata);
        }
        errno = number;
        throw_errno("the metadata attribute cannot be set");
    }
}

void drop_metadata(const std::string &entry) {
    (void)::removexattr(entry.c_str(), kMetadataName);
    (void)::removexattr(entry.c_str(), kTimeOfMetadata);
}

void remove_metadata(const std::string &entry, const std::string &value) {
    std::string now(value.size() + 1, '\0');
    const ssize_t size = ::getxattr(entry.c_str(), kMetadataName, now.data(), now.size());
    if (size < 0) {
        throw_errno("the metadata attribute cannot be read");
    }
    now.resize(static_cast<size_t>(size));
    if (now != value) {
        throw Failure("somebody has changed the metadata attribute meanwhile");
    }
    // The time first: alone it would stay for good.
    for (const char *const name : {kTimeOfMetadata, kMetadataName}) {
        if (::removexattr(entry.c_str(), name) != 0 && errno != ENODATA) {
            throw_errno(fmt::format("{} cannot be removed", name));
        }
    }
}

bool is_refused_attribute(const std::string &entry, const std::string &name, const std::string &value) {
    constexpr int refusals[] = {EOPNOTSUPP, E2BIG, ERANGE, ENOSPC, EINVAL, EDQUOT, ENOTDIR}; // the last of a fork
    forget_last_error();
    errno = 0;
    if (VEXOEAXattrSet(entry.c_str(), name.c_str(), value.c_str(), static_cast<int>(value.size()), XATTR_CREATE) == 0) {
        return false;
    }
    if (std::ranges::find(refusals, errno) != std::end(refusals)) {
        return true;
    }
    throw_last_error(fmt::format("the attribute {} cannot be set", displayed(name)));
}

} // namespace engine
