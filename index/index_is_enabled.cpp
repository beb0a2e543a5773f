// Whether the media services are to index a path.
#include "index/index.h"

#include "index/setting.h"
#include "platform/sdk.h"
#include "support/path_buffer.h"
#include "support/share.h"

#include <cstdint>
#include <cstring>
#include <string_view>
#include <strings.h>

using namespace vexo;

namespace {

constexpr char kPhotoSettings[] = "/var/packages/Pixhall/etc/settings.conf";
constexpr char kMusicSettings[] = "/var/packages/Tunehall/etc/audio.conf";
constexpr int kShareNameSize = 492;
constexpr uint32_t kShareIsIndexed = 0x20;

// The share's name in a path on a volume, its second component; empty for any other path.
std::string_view share_on_volume(std::string_view path) {
    if (!path.starts_with("/volume")) {
        return {};
    }
    const size_t slash = path.find('/', 1);
    const size_t name = path.find_first_not_of('/', slash);
    if (name == std::string_view::npos) { // no further "/", or nothing behind it
        return {};
    }
    path.remove_prefix(name);
    return path.substr(0, path.find('/'));
}

bool is_homes(std::string_view share) {
    constexpr std::string_view kHomes = "homes";
    return share.size() == kHomes.size() && ::strncasecmp(share.data(), kHomes.data(), kHomes.size()) == 0;
}

// Only what the personal services keep in a home is indexed; the indexing switch of the share itself does not count.
bool is_enabled_in_homes(const char *path) {
    const bool isPhoto = read_setting(kPhotoSettings, "runpersonalpixhall") == Setting::on &&
                         VEXOIndexIsPersonalPackagePath(path, "photo", nullptr, 0) == 1;
    const bool isMusic = read_setting(kMusicSettings, "enable_personal_library") == Setting::on &&
                         VEXOIndexIsPersonalPackagePath(path, "music", nullptr, 0) == 1;
    return isPhoto || isMusic;
}

bool is_enabled_in_share(const char *path) {
    char name[kShareNameSize] = {};
    PathBuffer sharePath;
    if (VEXOShareNamePathGet(path, name, sizeof name, sharePath.fill(), PathBuffer::kSize) < 0) {
        return false;
    }
    const Share share(name);
    return share && (share->status & kShareIsIndexed) != 0;
}

} // namespace

int VEXOIndexIsEnabled(const char *path, int *isRecycle) {
    if (path == nullptr) {
        return 0;
    }
    const int recycle = VEXOShareIsShareRecycle(path);
    if (isRecycle != nullptr) {
        *isRecycle = recycle;
    }
    if (recycle != 0) {
        return 0;
    }
    const bool isEnabled = is_homes(share_on_volume(path)) ? is_enabled_in_homes(path) : is_enabled_in_share(path);
    return isEnabled ? 1 : 0;
}
