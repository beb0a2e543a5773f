#include "tests/kit/native_double.h"

#include <cstring>
#include <string_view>
#include <vector>

namespace kit {
namespace {

constexpr std::string_view kNamespace = "user.";
constexpr std::string_view kShown = "com.apple.";

std::vector<std::string> &volumes() {
    static auto *instance = new std::vector<std::string>;
    return *instance;
}

} // namespace

void NativeDouble::setVolume(const std::string &directory) {
    volumes().push_back(directory);
}

void NativeDouble::reset() {
    volumes().clear();
}

bool hasNativeVolumes() {
    return !volumes().empty();
}

bool hasNativeNames(const char *path) {
    for (const std::string &directory : volumes()) {
        if (std::string_view(path).starts_with(directory + "/")) {
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
