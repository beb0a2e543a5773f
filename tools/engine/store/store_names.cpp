#include "tools/engine/store/store_names.h"

#include "ea/ea.h"
#include "tools/engine/volume/volume_traits.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"

#include <strings.h>
#include <sys/stat.h>

namespace engine {

bool is_store_name(const std::string &name) {
    return ::strcasecmp(name.c_str(), "@eaDir") == 0;
}

NameKind name_kind(const std::string &directory, const std::string &name, int volumeType) {
    if (VEXOEAIsHiddenDir(name.c_str()) == 1) {
        // Of another case it holds stores where cases are one, and is a user's own where they are not.
        const bool store = name == "@eaDir" || (is_store_name(name) && volume_traits(volumeType).fatNames);
        struct stat found {};
        const bool other = store && ::lstat(joined(directory, name).c_str(), &found) == 0 && !S_ISDIR(found.st_mode);
        return other                 ? NameKind::stray
               : store               ? NameKind::store
               : is_store_name(name) ? NameKind::stray
                                     : NameKind::system;
    }
    if (is_left_over(name)) {
        return NameKind::system;
    }
    if (!name.starts_with("._")) {
        return NameKind::ordinary;
    }
    const bool belongs = store_kind(volumeType) == StoreKind::apple_double && name.size() > 2 &&
                         exists(joined(directory, name.substr(2)));
    return belongs ? NameKind::companion : NameKind::stray;
}

} // namespace engine
