#include "tools/engine/store/store_parts.h"

#include "ea/ea.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr char kMetadataAttribute[] = "user.netatalk.Metadata";

bool is_nothing_there(int number) {
    return number == ENOENT || number == ENOTDIR || number == ENAMETOOLONG;
}

// `result`: of asking for its place.
bool has_file(int result, const char *place, StoreParts &parts) {
    struct stat found {};
    if (result != 0 || ::lstat(place, &found) == 0) {
        return result == 0;
    }
    parts.trouble = is_nothing_there(errno) ? parts.trouble : errno;
    return false;
}

bool keeps_apple_doubles(int type) {
    return store_kind(type) == StoreKind::apple_double;
}

} // namespace

bool is_listed(std::string_view names, std::string_view name) {
    for (size_t at = 0; at < names.size(); at = names.find('\0', at) + 1) {
        const std::string_view rest = names.substr(at);
        if (rest.size() > name.size() && rest.starts_with(name) && rest[name.size()] == '\0') {
            return true;
        }
        if (rest.find('\0') == std::string_view::npos) {
            break;
        }
    }
    return false;
}

StoreParts store_parts_in(std::string_view names) {
    return {.attribute = is_listed(names, kMetadataAttribute)};
}

StoreParts store_parts(const std::string &path, int volumeType, bool noDirectory) {
    char place[PATH_MAX] = "";
    const char *const name = path.c_str();
    StoreParts parts;
    if (keeps_apple_doubles(volumeType)) {
        parts.appleDouble = has_file(VEXOEAADPath(name, place, sizeof place), place, parts);
        return parts;
    }
    parts.attribute = ::lgetxattr(name, kMetadataAttribute, nullptr, 0) > 0;
    if (noDirectory) {
        return parts;
    }
    if (::access(joined(parent_of(path), "@eaDir").c_str(), F_OK) != 0) {
        parts.trouble = is_nothing_there(errno) ? 0 : errno;
        return parts;
    }
    parts.stream = has_file(VEXOEAPathNoADFS(1, name, "VexoEAStream", place, sizeof place), place, parts);
    parts.resource = has_file(VEXOEAPathNoADFS(1, name, "VexoResource", place, sizeof place), place, parts);
    return parts;
}

bool takes_companion(int directory, const std::string &name) {
    struct stat found {};
    return ::fstatat(directory, ("._" + name).c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 || errno != ENAMETOOLONG;
}

} // namespace engine
