// Whether a path lies in a user's home, and whose. A home is
//  1. a directory on the way to the path that is the home of the user who owns it, by the user database; or
//  2. where [homes] in Samba's configuration has a path, what that path is for a user of the database; and such a
//  user's
//     directory in /var/services/homes, where services look for homes.
// The answer's number, and the record's kind, say which.
#include "platform/sdk.h"

#include "platform/linux/sdk_smb_conf.h"
#include "platform/linux/text_file.h"
#include "support/heap.h"
#include "support/path_buffer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <sys/stat.h>

namespace vexo {
namespace {

constexpr int kHomeOfDatabase = 1;
constexpr int kHomeOfService = 2;

// A user of the database, with the memory that the record points into.
class User {
  public:
    bool find(uid_t uid) {
        return look_up([uid](passwd *entry, char *text, size_t size, passwd **found) {
            return ::getpwuid_r(uid, entry, text, size, found);
        });
    }
    bool find(const char *name) {
        return look_up([name](passwd *entry, char *text, size_t size, passwd **found) {
            return ::getpwnam_r(name, entry, text, size, found);
        });
    }
    const passwd &entry() const { return m_entry; }

  private:
    template <typename Call>
    bool look_up(Call call) {
        for (size_t size = 1024; size <= kLargestText; size *= 2) {
            m_text = HeapBuffer::uninitialised(size);
            passwd *found = nullptr;
            // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the assignment of HeapBuffer frees the one before
            const int error = m_text ? call(&m_entry, reinterpret_cast<char *>(m_text.data()), size, &found) : ENOMEM;
            if (error != ERANGE && error != EINTR) {
                return error == 0 && found != nullptr;
            }
        }
        return false;
    }

    passwd m_entry{};
    HeapBuffer m_text;
};

VEXOHomeCheckResult *make_result(int kind, const passwd &user, const char *home) {
    auto *result = static_cast<VEXOHomeCheckResult *>(std::calloc(1, sizeof(VEXOHomeCheckResult)));
    if (result == nullptr) {
        return nullptr;
    }
    result->kind = kind;
    result->uid = user.pw_uid;
    result->gid = user.pw_gid;
    result->user = ::strdup(user.pw_name);
    result->home = ::strdup(home);
    if (result->user == nullptr || result->home == nullptr) {
        VEXOHomeCheckResultFree(result);
        return nullptr;
    }
    return result;
}

// "/" is the home of many services and nobody's; the same directory under another path is still the home.
bool is_home_of(const passwd &user, const struct stat &directory) {
    struct stat home {};
    return user.pw_dir != nullptr && user.pw_dir[0] == '/' && std::strcmp(user.pw_dir, "/") != 0 &&
           ::stat(user.pw_dir, &home) == 0 && S_ISDIR(home.st_mode) && home.st_dev == directory.st_dev &&
           home.st_ino == directory.st_ino;
}

// The directories on the way to `path`, from the top; the owner of each is asked for once.
VEXOHomeCheckResult *home_of_database(std::string_view path) {
    User user;
    bool known = false;
    uid_t asked = 0;
    for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
        const PathBuffer directory(path.substr(0, end));
        struct stat found {};
        if (directory.overflowed() || ::stat(directory.c_str(), &found) != 0) {
            return nullptr;
        }
        if (!known || found.st_uid != asked) {
            asked = found.st_uid;
            known = user.find(asked);
        }
        if (known && S_ISDIR(found.st_mode) && is_home_of(user.entry(), found)) {
            return make_result(kHomeOfDatabase, user.entry(), directory.c_str());
        }
        if (end == std::string_view::npos) {
            return nullptr;
        }
    }
}

// What [homes] says of where homes are: its path, with one place for the user.
struct HomesSection {
    PathBuffer path;

    static bool visit(void *data, const ShareSection &share) {
        if (share.is_homes()) {
            static_cast<HomesSection *>(data)->path = share.path;
            return false;
        }
        return true;
    }
};

size_t find_user_place(std::string_view text) {
    size_t best = std::string_view::npos;
    for (const std::string_view place : {"%S", "%U", "%u"}) {
        best = std::min(best, text.find(place));
    }
    return best;
}

// The home that holds `path` by a pattern such as "/srv/homes/%S" or "/srv/%S/files".
VEXOHomeCheckResult *home_of_pattern(std::string_view path, std::string_view pattern) {
    const size_t place = find_user_place(pattern);
    if (place == std::string_view::npos || !path.starts_with(pattern.substr(0, place))) {
        return nullptr;
    }
    const std::string_view behind = tail(pattern, place + 2);
    std::string_view name = tail(path, place);
    name = name.substr(0, name.find('/'));
    const PathBuffer home = PathBuffer(path.substr(0, place + name.size())).append(behind);
    User user;
    if (name.empty() || behind.find('%') != std::string_view::npos || !path_is_in(path, home.view()) ||
        !user.find(PathBuffer(name).c_str())) {
        return nullptr;
    }
    return make_result(kHomeOfService, user.entry(), home.c_str());
}

VEXOHomeCheckResult *home_of_service(std::string_view path) {
    HomesSection homes;
    VEXOHomeCheckResult *found = nullptr;
    if (visit_shares({HomesSection::visit, &homes}) == SmbConf::read && !homes.path.overflowed()) {
        found = home_of_pattern(path, homes.path.view());
    }
    return found != nullptr ? found : home_of_pattern(path, "/var/services/homes/%S");
}

} // namespace
} // namespace vexo

using namespace vexo;

int VEXOServiceHomePathCheck(const char *path, int, int, VEXOHomeCheckResult **result) {
    if (path == nullptr || *path != '/' || result == nullptr) {
        errno = EINVAL;
        return -1;
    }
    VEXOHomeCheckResult *found = home_of_service(path);
    if (found == nullptr) {
        found = home_of_database(path);
    }
    if (found == nullptr) {
        return 0;
    }
    *result = found;
    return found->kind;
}

void VEXOHomeCheckResultFree(VEXOHomeCheckResult *result) {
    if (result != nullptr) {
        std::free(result->user);
        std::free(result->home);
        std::free(result);
    }
}
