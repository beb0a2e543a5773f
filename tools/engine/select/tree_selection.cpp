#include "tools/engine/select/tree_selection.h"

#include "platform/core.h"

#include <cerrno>
#include <sys/xattr.h>

namespace engine {
namespace {

// The platform says of a record that it could not read what it says where there is none: it is looked at once more
// where one is, and what cannot be looked at is not left out.
bool is_archived(const std::string &held) {
    for (int look = 0; look < 2; ++look) {
        VLIBCStat status{};
        if (VLIBCFileStat(held.c_str(), VLIBC_STAT_ATTRIBUTES, &status) != 0 ||
            (status.attributes & VLIBC_ATTR_ARCHIVE) != 0) {
            return true;
        }
        if (::getxattr(held.c_str(), "user.DOSATTRIB", nullptr, 0) < 0) {
            return errno != ENODATA && errno != EOPNOTSUPP && errno != EPERM;
        }
    }
    return false;
}

} // namespace

void TreeSelection::begin(const std::string &top, bool named) {
    m_before = named ? top.rfind('/') + 1 : top.size() + (top.ends_with('/') ? 0 : 1);
}

bool TreeSelection::is_meant(std::string_view path, const std::string &held, const struct stat &entry) const {
    return m_selection.takes_name(path, S_ISDIR(entry.st_mode)) && m_selection.takes(entry) &&
           (!m_selection.archivedAlone || !S_ISREG(entry.st_mode) || is_archived(held));
}

bool TreeSelection::takes(const std::string &path, const std::string &held, const struct stat &entry) {
    if (m_everything || path.size() <= m_before || is_meant(std::string_view(path).substr(m_before), held, entry)) {
        return true;
    }
    ++m_leftOut;
    return false;
}

std::function<bool(const std::string &, const struct stat &)> TreeSelection::counted(const std::string &top,
                                                                                     bool named) {
    if (m_everything) {
        return {};
    }
    begin(top, named);
    struct stat found {};
    const dev_t volume = ::lstat(top.c_str(), &found) == 0 ? found.st_dev : 0;
    return [this, volume](const std::string &path, const struct stat &entry) {
        return enters(entry.st_dev, volume) && takes(path, path, entry);
    };
}

} // namespace engine
