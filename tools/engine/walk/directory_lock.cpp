#include "tools/engine/walk/directory_lock.h"

#include "tools/engine/walk/look.h"
#include "tools/engine/walk/patience.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <utility>

namespace engine {
namespace {

using Inode = std::pair<dev_t, ino_t>;

// Where somebody did not let go: not each of a thousand files is to wait for him.
std::set<Inode> &given_up() {
    static std::set<Inode> directories;
    return directories;
}

bool lock_now(int fd) {
    int result = 0;
    do {
        result = ::flock(fd, LOCK_EX | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

bool lock_in_time(int fd, const Inode &directory) {
    bool locked = lock_now(fd);
    constexpr size_t mostWaited = 3; // nor is each of a thousand directories
    Patience patience(given_up().contains(directory) || given_up().size() >= mostWaited ? std::chrono::milliseconds(0)
                                                                                        : lock_patience());
    while (!locked && errno == EWOULDBLOCK && patience.wait()) {
        locked = lock_now(fd);
    }
    if (locked) {
        given_up().erase(directory);
    } else if (errno == EWOULDBLOCK) {
        given_up().insert(directory);
        errno = EWOULDBLOCK;
    }
    return locked;
}

} // namespace

DirectoryLock::DirectoryLock(int directory, int other) {
    struct stat one {
    }, two{};
    if (::fstat(directory, &one) != 0) {
        return;
    }
    const bool both = other >= 0 && ::fstat(other, &two) == 0 && !same(one, two);
    const bool first = !both || Inode(one.st_dev, one.st_ino) < Inode(two.st_dev, two.st_ino);
    m_held = take(first ? directory : other, first ? one : two, m_first) &&
             (!both || take(first ? other : directory, first ? two : one, m_second));
}

bool DirectoryLock::take(int directory, const struct stat &found, Descriptor &lock) {
    lock = Descriptor(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const bool taken = lock.get() >= 0 && lock_in_time(lock.get(), Inode(found.st_dev, found.st_ino));
    m_refused = m_refused || (!taken && lock.get() >= 0 && errno == EWOULDBLOCK);
    return taken;
}

} // namespace engine
