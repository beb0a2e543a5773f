#include "tools/engine/select/entry_choice.h"

#include "platform/core.h"

namespace engine {
namespace {

bool is_archived(const std::string &held) {
    VLIBCStat status{};
    return VLIBCFileStat(held.c_str(), VLIBC_STAT_ATTRIBUTES, &status) != 0 ||
           (status.attributes & VLIBC_ATTR_ARCHIVE) != 0;
}

} // namespace

bool is_meant(const Selection &selection, std::string_view path, const std::string &held, const struct stat &entry) {
    return selection.takes_name(path, S_ISDIR(entry.st_mode)) && selection.takes(entry) &&
           (!selection.archivedAlone || !S_ISREG(entry.st_mode) || is_archived(held));
}

} // namespace engine
