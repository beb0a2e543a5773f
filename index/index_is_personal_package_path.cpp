// Whether a path is in a folder directly in its user's home.
#include "index/index.h"

#include "support/path_buffer.h"
#include "support/share.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <strings.h>

using namespace vexo;

namespace {

size_t resolved_length(const char *home) {
    PathBuffer resolved;
    return ::realpath(home, resolved.fill()) != nullptr ? std::strlen(resolved.c_str()) : std::strlen(home);
}

// Whether `text` is `folder` or goes on with "/" behind it.
bool begins_with_folder(std::string_view text, std::string_view folder) {
    return text.size() >= folder.size() && ::strncasecmp(text.data(), folder.data(), folder.size()) == 0 &&
           (text.size() == folder.size() || text[folder.size()] == '/');
}

} // namespace

int VEXOIndexIsPersonalPackagePath(const char *path, const char *folder, char *userOut, int userOutSize) {
    if (path == nullptr || folder == nullptr) {
        return 0;
    }
    const Home home(path);
    if (!home) {
        return 0;
    }
    if (userOut != nullptr && userOutSize >= 1) {
        std::snprintf(userOut, static_cast<size_t>(userOutSize), "%s", home->user == nullptr ? "" : home->user);
    }
    if (home->home == nullptr) {
        return 0;
    }
    // The resolved home's length is counted off in the path as it is. Callers give paths by their volume, where the two
    // agree; a path through a link is not looked into, and stays out.
    const std::string_view text = path;
    const size_t offset = resolved_length(home->home) + 1;
    return offset <= text.size() && begins_with_folder(text.substr(offset), folder) ? 1 : 0;
}
