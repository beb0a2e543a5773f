#include "tools/engine/volume/fat_name.h"

#include "copy/copy.h"

#include <climits>

namespace engine {

std::string fat_name(const std::string &path) {
    char fixed[PATH_MAX] = "";
    return VEXOStrReplaceFATReservedChar(path.c_str(), fixed, sizeof fixed) == 0 ? fixed : path;
}

} // namespace engine
