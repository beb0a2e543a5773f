// What the status of two entries tells: owners, times, DOS attributes.
#include "tools/engine/compare/findings.h"
#include "tools/engine/walk/units.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fmt/format.h>
#include <initializer_list>
#include <sys/stat.h>

namespace engine {
namespace {

constexpr int64_t kCreationUnit = 100;

struct Flag {
    uint32_t bit;
    const char *name;
};
constexpr Flag kFlags[] = {
    {VLIBC_ATTR_HIDDEN, "hidden"}, {VLIBC_ATTR_SYSTEM, "system"}, {VLIBC_ATTR_ARCHIVE, "archive"}};

// Of a volume that no table knows: the coarsest that all times of an entry agree with. The change time is the kernel's
// own, so that it shows how fine the volume is.
int64_t shown_grain(const struct stat &entry) {
    for (const int64_t grain : {kSecond, kSecond / 100, int64_t{1000}, int64_t{100}}) {
        if (entry.st_mtim.tv_nsec % grain == 0 && entry.st_ctim.tv_nsec % grain == 0) {
            return grain;
        }
    }
    return 1;
}

int64_t grain_of(const EntryView &entry) {
    return entry.volume().timeGrain > 0 ? entry.volume().timeGrain : shown_grain(entry.status().st);
}

bool within(const timespec &one, const timespec &other, int64_t grain) {
    const int64_t seconds = one.tv_sec - other.tv_sec;
    return std::abs(seconds) <= grain / kSecond + 1 &&
           std::abs(seconds * kSecond + (one.tv_nsec - other.tv_nsec)) < grain;
}

std::string exact_time(const timespec &time) {
    std::tm parts{};
    char text[32] = "";
    if (::gmtime_r(&time.tv_sec, &parts) == nullptr || std::strftime(text, sizeof text, "%F %T", &parts) == 0) {
        return fmt::format("{}.{:09} s", time.tv_sec, time.tv_nsec);
    }
    return fmt::format("{}.{:09} UTC", text, time.tv_nsec);
}

bool earlier(const timespec &one, const timespec &other) {
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

timespec oldest_of(std::initializer_list<timespec> times) {
    return std::min(times, earlier);
}

// Where nobody stored a creation time and the volume keeps none, the platform gives the oldest time of the entry.
bool is_guess(const EntryView &entry) {
    const struct stat &status = entry.status().st;
    return !entry.volume().creationTimes &&
           within(oldest_of({status.st_mtim, status.st_ctim, status.st_atim}), entry.status().createTime, 1);
}

// Of a copy. An access time that happens to be that of the creation is another one as soon as somebody reads it.
timespec kept_creation(const EntryView &entry) {
    const struct stat &status = entry.status().st;
    return is_guess(entry) ? oldest_of({status.st_mtim, status.st_ctim}) : entry.status().createTime;
}

std::string flags_text(uint32_t attributes) {
    std::string text;
    for (const Flag &flag : kFlags) {
        if ((attributes & flag.bit) != 0) {
            text += (text.empty() ? "" : ", ") + std::string(flag.name);
        }
    }
    return text.empty() ? "none" : text;
}

} // namespace

void compare_owners(const EntryView &one, const EntryView &other, Findings &findings) {
    const struct stat &first = one.status().st, &second = other.status().st;
    if (!one.volume().owners) {
        return;
    }
    if (first.st_uid != second.st_uid) {
        findings.add(LossClass::owner, fmt::format("owner differs: {} and {}", first.st_uid, second.st_uid));
    }
    if (first.st_gid != second.st_gid) {
        findings.add(LossClass::group, fmt::format("group differs: {} and {}", first.st_gid, second.st_gid));
    }
}

void compare_times(const EntryView &one, const EntryView &other, Findings &findings) {
    const struct stat &first = one.status().st, &second = other.status().st;
    const int64_t grain = std::max(grain_of(one), grain_of(other));
    if (!within(first.st_mtim, second.st_mtim, grain)) {
        findings.add(LossClass::modification_time, fmt::format("modification time differs: {} and {}",
                                                               exact_time(first.st_mtim), exact_time(second.st_mtim)));
    } else if (!keeps_time(other.volume(), first.st_mtim)) {
        findings.add(LossClass::modification_time,
                     fmt::format("modification time {}: the volume keeps none before 1980 and none after 2107",
                                 exact_time(first.st_mtim)));
    }
    const bool keeps = S_ISREG(first.st_mode) || S_ISDIR(first.st_mode);
    const timespec created = one.status().createTime, there = kept_creation(other);
    if (keeps && !within(created, there, std::max(grain, kCreationUnit)) && !is_guess(one)) {
        findings.add(LossClass::creation_time,
                     fmt::format("creation time differs: {} and {}", exact_time(created), exact_time(there)));
    }
}

void compare_dos_attributes(const EntryView &one, const EntryView &other, Findings &findings) {
    constexpr uint32_t compared = VLIBC_ATTR_HIDDEN | VLIBC_ATTR_SYSTEM | VLIBC_ATTR_ARCHIVE;
    const uint32_t first = one.status().attributes & compared;
    uint32_t second = other.status().attributes & compared;
    // Every copy sets the archive attribute, so that the next backup takes it along.
    second &= ~uint32_t{VLIBC_ATTR_ARCHIVE} | first;
    if (first != second) {
        findings.add(LossClass::dos_attributes,
                     fmt::format("DOS attributes differ: {} and {}", flags_text(first), flags_text(second)));
    }
}

} // namespace engine
