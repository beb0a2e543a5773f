#include "tools/engine/walk/rename.h"

#include "tools/engine/walk/descriptor.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

// Something of our own under the name, which a renaming may replace.
bool take_name(int directory, const std::string &name, bool isDirectory) {
    if (isDirectory) {
        return ::mkdirat(directory, name.c_str(), 0700) == 0;
    }
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    return Descriptor(::openat(directory, name.c_str(), flags, 0600)).get() >= 0;
}

} // namespace

bool rename_without_replacing(int fromDirectory, const std::string &from, int toDirectory, const std::string &to) {
    if (::renameat2(fromDirectory, from.c_str(), toDirectory, to.c_str(), RENAME_NOREPLACE) == 0) {
        return true;
    }
    struct stat found {};
    if (errno != EINVAL || ::fstatat(fromDirectory, from.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    const bool isDirectory = S_ISDIR(found.st_mode);
    if (!isDirectory && ::linkat(fromDirectory, from.c_str(), toDirectory, to.c_str(), 0) == 0) {
        return ::unlinkat(fromDirectory, from.c_str(), 0) == 0;
    }
    if (!isDirectory && (errno == EEXIST || errno == EXDEV)) {
        return false;
    }
    if (!take_name(toDirectory, to, isDirectory)) {
        return false;
    }
    if (::renameat(fromDirectory, from.c_str(), toDirectory, to.c_str()) == 0) {
        return true;
    }
    const int number = errno;
    ::unlinkat(toDirectory, to.c_str(), isDirectory ? AT_REMOVEDIR : 0);
    errno = number;
    return false;
}

} // namespace engine
