#include "tools/engine/workers/disks.h"

#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <memory>
#include <optional>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr int kMostLayers = 16; // of devices upon one another: nobody has so many

std::string real_path(const std::string &path) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    return real == nullptr ? std::string() : real.get();
}

std::optional<char> first_byte(const std::string &file) {
    const Descriptor opened(::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    char byte = 0;
    return opened.get() >= 0 && ::read(opened.get(), &byte, 1) == 1 ? std::optional(byte) : std::nullopt;
}

// Of a machine that is one itself. Its kernel says of every such disk that it turns, and knows nothing of what is
// below; that is memory, or a server's array, oftener than one disk.
bool is_virtual(const std::string &device) {
    const std::string bus = base_name(real_path(device + "/device/subsystem"));
    return bus == "virtio" || bus == "xen";
}

std::string device_of(dev_t number, const std::string &sysfs) {
    return real_path(fmt::format("{}/dev/block/{}:{}", sysfs, major(number), minor(number)));
}

// What a file serves as a disk lies where the file does.
std::string device_of_file(const std::string &device, const std::string &sysfs) {
    const Descriptor told(::open((device + "/loop/backing_file").c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    char path[PATH_MAX] = {};
    const ssize_t length = told.get() < 0 ? -1 : ::read(told.get(), path, sizeof path);
    const auto file = length > 1 ? look_through(std::string(path, static_cast<size_t>(length) - 1)) : std::nullopt;
    return file && S_ISREG(file->st_mode) ? device_of(file->st_dev, sysfs) : std::string();
}

// `device`: its directory, without links in it.
void add_device(const std::string &device, const std::string &sysfs, Disks &disks, int layers = 0) {
    if (device.empty() || layers > kMostLayers) {
        return;
    }
    if (const std::string file = device_of_file(device, sysfs); !file.empty()) {
        add_device(file, sysfs, disks, layers + 1);
        return;
    }
    if (exists(device + "/partition")) {
        add_device(parent_of(device), sysfs, disks, layers + 1);
        return;
    }
    const auto below = names_in(device + "/slaves");
    for (const std::string &name : below.value_or(std::vector<std::string>())) {
        add_device(real_path(device + "/slaves/" + name), sysfs, disks, layers + 1);
    }
    if (!below || below->empty()) {
        disks.names.insert(base_name(device));
        disks.turning = disks.turning || (first_byte(device + "/queue/rotational") == '1' && !is_virtual(device));
    }
}

// A volume of several devices has a number that is none of theirs.
void add_btrfs(int directory, const std::string &sysfs, Disks &disks) {
    btrfs_ioctl_fs_info_args info{};
    if (::ioctl(directory, BTRFS_IOC_FS_INFO, &info) != 0) {
        return;
    }
    std::string id;
    for (size_t at = 0; at < std::size(info.fsid); ++at) {
        id += fmt::format("{}{:02x}", at == 4 || at == 6 || at == 8 || at == 10 ? "-" : "", info.fsid[at]);
    }
    const std::string devices = sysfs + "/fs/btrfs/" + id + "/devices";
    for (const std::string &name : names_in(devices).value_or(std::vector<std::string>())) {
        add_device(real_path(devices + "/" + name), sysfs, disks);
    }
}

} // namespace

Disks disks_below(const std::string &path, const std::string &sysfs) {
    std::string there = path;
    while (!look_through(there) && there != "/" && !there.empty()) {
        there = parent_of(there);
    }
    Disks disks;
    struct statfs volume {};
    const auto found = look_through(there);
    if (!found) {
        return disks;
    }
    const Descriptor opened(::open(there.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (opened.get() >= 0 && ::fstatfs(opened.get(), &volume) == 0 && volume.f_type == BTRFS_SUPER_MAGIC) {
        add_btrfs(opened.get(), sysfs, disks);
        return disks;
    }
    add_device(device_of(found->st_dev, sysfs), sysfs, disks);
    return disks;
}

} // namespace engine
