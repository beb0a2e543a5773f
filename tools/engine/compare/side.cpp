#include "tools/engine/compare/side.h"

#include "platform/sdk.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/units.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr uint32_t kFuse = 0x65735546;

struct GrainRow {
    uint32_t magic;
    int64_t grain;
};
// File systems that are not here are judged by what an entry's times show.
constexpr GrainRow kGrains[] = {
    {0x4d44, 2 * kSecond},       // FAT
    {0x2011bab0, kSecond / 100}, // exFAT
    {0x5346544e, 100},           // NTFS
    {0x7366746e, 100},           // NTFS, by the other driver
    {0x482b, kSecond},           // HFS+
    {0x4858, kSecond},           // HFSX
    {0x15013346, 1000},          // UDF
    {0x9660, kSecond},           // CD
    {0x58465342, 1},             // XFS
    {0x9123683e, 1},             // btrfs
    {0x01021994, 1},             // tmpfs
    {0x858458f6, 1},             // ramfs
};

// The path of an open directory as the kernel tells it; empty when that is not it any more.
std::string text_of(int directory) {
    std::array<char, PATH_MAX> target{};
    const std::string link = "/proc/self/fd/" + std::to_string(directory);
    const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
    if (length <= 0 || static_cast<size_t>(length) == target.size()) {
        return {};
    }
    std::string path(target.data(), static_cast<size_t>(length));
    struct stat there {
    }, open{};
    const bool same = ::lstat(path.c_str(), &there) == 0 && ::fstat(directory, &open) == 0 &&
                      there.st_dev == open.st_dev && there.st_ino == open.st_ino;
    return same ? path : std::string();
}

// What the machine has found out of a device when it came, which everybody may read; empty where nobody has.
std::string noted_type(const struct stat &found) {
    constexpr std::string_view wanted = "E:ID_FS_TYPE=";
    std::ifstream notes("/run/udev/data/b" + std::to_string(major(found.st_dev)) + ":" +
                        std::to_string(minor(found.st_dev)));
    for (std::string line; std::getline(notes, line);) {
        if (line.starts_with(wanted)) {
            return line.substr(wanted.size());
        }
    }
    return {};
}

// Whether it is FAT or exFAT that a program drives, by the first bytes of the device. Who may not read those asks what
// the machine knows of it; where that is nothing, either, the driver is believed.
bool is_fat_by_program(int directory) {
    struct stat found {
    }, opened{};
    std::array<char, PATH_MAX> target{};
    if (::fstat(directory, &found) != 0) {
        return false;
    }
    const std::string link =
        "/sys/dev/block/" + std::to_string(major(found.st_dev)) + ":" + std::to_string(minor(found.st_dev));
    const ssize_t length = ::readlink(link.c_str(), target.data(), target.size() - 1);
    const std::string text(target.data(), length > 0 ? static_cast<size_t>(length) : 0);
    const std::string path = "/dev/" + text.substr(text.rfind('/') + 1);
    const Descriptor device(text.empty() ? -1 : ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (device.get() < 0 && errno == EACCES) {
        const std::string type = noted_type(found);
        return type == "vfat" || type == "exfat";
    }
    std::array<char, 512> start{};
    if (device.get() < 0 || ::fstat(device.get(), &opened) != 0 || !S_ISBLK(opened.st_mode) ||
        opened.st_rdev != found.st_dev || ::pread(device.get(), start.data(), start.size(), 0) < 0) {
        return false;
    }
    constexpr size_t exfatAt = 3, fatAt = 54, fat32At = 82;
    const std::string_view bytes(start.data(), start.size());
    return bytes.substr(exfatAt).starts_with("EXFAT   ") || bytes.substr(fatAt).starts_with("FAT1") ||
           bytes.substr(fat32At).starts_with("FAT32");
}

int type_of(int directory) {
    const std::string text = text_of(directory);
    return VEXOGetFSType(text.empty() ? ("/proc/self/fd/" + std::to_string(directory)).c_str() : text.c_str(), 1);
}

} // namespace

bool keeps_time(const VolumeFacts &volume, const timespec &time) {
    constexpr time_t first = 315'532'800, end = 4'354'819'200; // 1980, 2108
    return !volume.fatTimes || (time.tv_sec >= first && time.tv_sec < end);
}

VolumeFacts volume_facts(int directory, int type) {
    VolumeFacts facts;
    struct statfs volume {};
    facts.type = type >= 0 ? type : type_of(directory);
    const VolumeTraits traits = volume_traits(facts.type);
    facts.store = traits.store;
    facts.owners = traits.owners;
    // An O_PATH descriptor will do for fstatfs().
    facts.magic = ::fstatfs(directory, &volume) == 0 ? static_cast<uint32_t>(volume.f_type) : 0;
    const auto *const row = std::ranges::find(kGrains, facts.magic, &GrainRow::magic);
    facts.timeGrain = row == std::end(kGrains) ? 0 : row->grain;
    facts.fatTimes = facts.magic == kFuse && is_fat_by_program(directory);
    facts.largestFile = largest_file(directory, facts.type);
    constexpr uint32_t extended = 0xef53;
    if (facts.largestFile == 0 && facts.magic == extended) { // it counts a file's blocks in 32 bits
        facts.largestFile = uint64_t{UINT32_MAX} * static_cast<uint64_t>(volume.f_bsize) + 1;
    }
    struct stat found {};
    struct statx itself {};
    const bool told = ::statx(directory, "", AT_EMPTY_PATH, STATX_BTIME, &itself) == 0;
    facts.creationTimes = told && (itself.stx_mask & STATX_BTIME) != 0;
    facts.appendOnly = told && (itself.stx_attributes & STATX_ATTR_APPEND) != 0;
    facts.noDirectory = ::fstatat(directory, "@eaDir", &found, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
    return facts;
}

} // namespace engine
