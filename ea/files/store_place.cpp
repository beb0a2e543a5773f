#include "ea/files/store_place.h"

#include "support/path_buffer.h"

#include <cerrno>
#include <cstring>
#include <string_view>

namespace vexo {
namespace {

constexpr std::string_view kDirectoryName = "@eaDir";
constexpr int kEnter = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Where a path enters a store: behind the last component "@eaDir", npos when it has none before its last one.
size_t store_begins(std::string_view path) {
    path = path.substr(0, path.find_last_not_of('/') + 1);
    size_t slash = path.rfind('/');
    while (slash != std::string_view::npos && slash > 0) {
        const size_t before = path.rfind('/', slash - 1);
        const size_t begin = before == std::string_view::npos ? 0 : before + 1;
        if (std::string_view(path.data() + begin, slash - begin) == kDirectoryName) {
            return slash + 1;
        }
        slash = before;
    }
    return std::string_view::npos;
}

} // namespace

StorePlace::StorePlace(const char *path) : m_name(path) {
    const size_t behind = store_begins(path);
    if (behind == std::string_view::npos) {
        return;
    }
    m_inStore = true;
    PathBuffer part(std::string_view(path, behind - 1));
    if (part.overflowed()) {
        errno = ENAMETOOLONG;
        return;
    }
    m_directory.reset(::open(part.c_str(), kEnter));
    m_name = path + behind;
    while (m_directory) {
        m_name += std::strspn(m_name, "/");
        const std::string_view rest = m_name;
        const size_t slash = rest.find('/');
        if (rest.find_first_not_of('/', slash) == std::string_view::npos) {
            break;
        }
        part.clear();
        part.append(rest.substr(0, slash));
        m_directory.reset(::openat(m_directory.get(), part.c_str(), kEnter));
        m_name += slash;
    }
}

} // namespace vexo
