#include "tools/engine/store/mac_attributes.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <sys/xattr.h>

namespace engine {
namespace {

constexpr uint32_t kHfsPlus = 0x482b;
constexpr uint32_t kHfsx = 0x4858;
constexpr char kOsxFinderInfo[] = "osx.com.apple.FinderInfo";

// The driver gives Finder Info of every file: zeros where nobody has set any, with the type and the creator of files
// that were made from Linux as question marks.
bool has_finder_info(const char *path) {
    constexpr std::string_view unknownType = "????????";
    char value[64];
    const ssize_t size = ::lgetxattr(path, kOsxFinderInfo, value, sizeof value);
    std::string_view info(value, size < 0 ? 0 : static_cast<size_t>(size));
    if (info.starts_with(unknownType)) {
        info.remove_prefix(unknownType.size());
    }
    return std::ranges::any_of(info, [](char byte) { return byte != 0; });
}

} // namespace

bool keeps_mac_attributes(uint32_t magic) {
    return magic == kHfsPlus || magic == kHfsx;
}

bool has_mac_attributes(const std::string &path) {
    if (has_finder_info(path.c_str())) {
        return true;
    }
    std::string names(65536, '\0');
    const ssize_t size = ::llistxattr(path.c_str(), names.data(), names.size());
    std::string_view rest(names.data(), size < 0 ? 0 : static_cast<size_t>(size));
    while (!rest.empty()) {
        const std::string_view name = rest.substr(0, rest.find('\0'));
        if (name.starts_with("osx.") && name != kOsxFinderInfo) {
            return true;
        }
        rest.remove_prefix(std::min(rest.size(), name.size() + 1));
    }
    return false;
}

} // namespace engine
