#include "tests/kit/native_double.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <functional>
#include <set>
#include <string_view>
#include <unistd.h>

namespace kit {
namespace {

constexpr std::string_view kNamespace = "user.";
constexpr std::string_view kShown = "com.apple.";

// There may be hundreds of them, and each call on an attribute asks.
using Directories = std::set<std::string, std::less<>>;

Directories &nativeVolumes() {
    static auto *instance = new Directories;
    return *instance;
}

// What "/proc/self/fd/N" and a path below it lead to.
std::string throughDescriptor(const std::string &path) {
    constexpr std::string_view kOpen = "/proc/self/fd/";
    if (!path.starts_with(kOpen)) {
        return path;
    }
    const size_t slash = std::min(path.find('/', kOpen.size()), path.size());
    std::array<char, PATH_MAX> target{};
    const ssize_t length = ::readlink(path.substr(0, slash).c_str(), target.data(), target.size() - 1);
    return length < 0 ? path : std::string(target.data(), static_cast<size_t>(length)) + path.substr(slash);
}

} // namespace

void NativeDouble::setVolume(const std::string &directory) {
    nativeVolumes().insert(directory);
}

void NativeDouble::reset() {
    nativeVolumes().clear();
}

bool hasNativeVolumes() {
    return !nativeVolumes().empty();
}

bool hasNativeNames(const char *given) {
    if (nativeVolumes().empty()) {
        return false;
    }
    const std::string path = throughDescriptor(given);
    const std::string_view whole = path;
    for (size_t slash = whole.find('/'); slash != whole.npos; slash = whole.find('/', slash + 1)) {
        if (nativeVolumes().contains(whole.substr(0, slash))) {
            return true;
        }
    }
    return false;
}

std::string keptName(const char *path, const char *name) {
    const bool changed = hasNativeNames(path) && std::string_view(name).starts_with(kShown);
    return changed ? std::string(kNamespace) + name : std::string(name);
}

size_t shownNames(const char *path, char *names, size_t size) {
    if (!hasNativeNames(path)) {
        return size;
    }
    std::string shown;
    for (size_t at = 0; at < size;) {
        std::string_view name(names + at);
        at += name.size() + 1;
        if (name.starts_with(std::string(kNamespace) + std::string(kShown))) {
            name.remove_prefix(kNamespace.size());
        }
        shown.append(name).push_back('\0');
    }
    std::memcpy(names, shown.data(), shown.size());
    return shown.size();
}

} // namespace kit
