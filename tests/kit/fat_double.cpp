#include "tests/kit/fat_double.h"

#include <array>
#include <climits>
#include <cstdio>
#include <linux/msdos_fs.h>
#include <map>
#include <sys/ioctl.h>
#include <unistd.h>
#include <vector>

namespace kit {
namespace {

struct Volumes {
    std::vector<std::string> directories;
    std::map<std::string, uint32_t> attributes;
};

Volumes &volumes() {
    static auto *instance = new Volumes;
    return *instance;
}

std::string openPath(int fd) {
    std::array<char, PATH_MAX> target{};
    const ssize_t length =
        ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target.data(), target.size() - 1);
    return length < 0 ? std::string() : std::string(target.data(), static_cast<size_t>(length));
}

bool onVolume(const std::string &path) {
    for (const std::string &directory : volumes().directories) {
        if (path.compare(0, directory.size() + 1, directory + "/") == 0) {
            return true;
        }
    }
    return false;
}

} // namespace

void FatDouble::setVolume(const std::string &directory) {
    volumes().directories.push_back(directory);
}

uint32_t FatDouble::attributes(const std::string &file) {
    const auto found = volumes().attributes.find(file);
    return found == volumes().attributes.end() ? ATTR_ARCH : found->second;
}

void FatDouble::setAttributes(const std::string &file, uint32_t attributes) {
    volumes().attributes[file] = attributes;
}

void FatDouble::reset() {
    volumes() = Volumes();
}

bool answerFatCall(int fd, unsigned long request, void *argument) {
    if (volumes().directories.empty() || (request != FAT_IOCTL_GET_ATTRIBUTES && request != FAT_IOCTL_SET_ATTRIBUTES)) {
        return false;
    }
    const std::string path = openPath(fd);
    if (!onVolume(path)) {
        return false;
    }
    if (auto *word = static_cast<uint32_t *>(argument); request == FAT_IOCTL_GET_ATTRIBUTES) {
        *word = FatDouble::attributes(path);
    } else {
        FatDouble::setAttributes(path, *word);
    }
    return true;
}

} // namespace kit
