#include "tools/engine/relocate/mounts.h"

#include "tools/engine/walk/mount_table.h"

#include <cstdlib>
#include <memory>

namespace engine {

std::optional<std::string> mount_in(const std::string &path, bool itself) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    const std::string wanted = real == nullptr ? path : real.get();
    for (const Mount &mount : mount_table()) {
        if ((itself && mount.place == wanted) || mount.place.starts_with(wanted == "/" ? "/" : wanted + "/")) {
            return mount.place;
        }
    }
    return std::nullopt;
}

} // namespace engine
