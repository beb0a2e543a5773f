#include "tools/engine/transfer/link_transfer.h"

#include "tools/engine/losses/wording.h"
#include "tools/engine/volume/volume_traits.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <unistd.h>

namespace engine {

std::optional<Problem> make_link(const HeldDirectory &from, const std::string &source, const struct stat &entry,
                                 const HeldDirectory &to, const std::string &made) {
    if (!volume_traits(to.type()).links) {
        return Problem{.reason = kLinkNotHeld, .withSource = true};
    }
    char target[PATH_MAX] = "";
    if (::readlinkat(from.fd(), source.c_str(), target, sizeof target - 1) < 0 ||
        ::symlinkat(target, to.fd(), made.c_str()) != 0) {
        return problem_of_errno(errno);
    }
    finish_link(entry, to.fd(), made);
    return std::nullopt;
}

void finish_link(const struct stat &source, int directory, const std::string &name) {
    (void)!::fchownat(directory, name.c_str(), source.st_uid, source.st_gid, AT_SYMLINK_NOFOLLOW);
    const timespec times[] = {source.st_atim, source.st_mtim};
    ::utimensat(directory, name.c_str(), times, AT_SYMLINK_NOFOLLOW); // Not every volume keeps a link's times.
}

} // namespace engine
