// Whether a path names an entry of a directory, so that companions can belong to it.
#pragma once

#include <string_view>

namespace vexo {

// Not so where its last component is empty, "." or "..": what companions such a path is given are those of something
// else, for "DIR/.." the whole "@eaDir" of DIR. One trailing "/" is left out, as in the paths of companions.
constexpr bool names_entry(std::string_view path) {
    if (path.ends_with('/')) {
        path.remove_suffix(1);
    }
    path.remove_prefix(path.rfind('/') + 1); // npos + 1 is 0
    return !path.empty() && path != "." && path != "..";
}

} // namespace vexo
