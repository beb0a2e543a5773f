#include "tools/engine/walk/directory_lock.h"

#include "tools/engine/walk/look.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <utility>

namespace engine {
namespace {

using Clock = std::chrono::steady_clock;
using Inode = std::pair<dev_t, ino_t>;

std::chrono::milliseconds patience = kLockPatience;

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

// The kernel's own waiting has no end.
bool lock_in_time(int fd, const Inode &directory) {
    constexpr std::chrono::milliseconds shortest{1}, longest{50};
    bool locked = lock_now(fd);
    const auto end = Clock::now() + (given_up().contains(directory) ? std::chrono::milliseconds(0) : patience);
    for (auto pause = shortest; !locked && errno == EWOULDBLOCK && Clock::now() < end;
         pause = std::min(2 * pause, longest)) {
        std::this_thread::sleep_for(pause);
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

void set_lock_patience(std::chrono::milliseconds longest) {
    patience = longest;
    given_up().clear();
}

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
