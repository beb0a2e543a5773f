#include "tools/engine/archive/archive_bit.h"

#include "platform/core.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/transfer/completion.h"
#include "tools/engine/walk/descriptor.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/statvfs.h>

namespace engine {
namespace {

constexpr int kClearArchive = 0x201, kSetArchive = 0x202;

} // namespace

std::optional<bool> has_archive_bit(int fd) {
    VLIBCStat status{};
    if (VLIBCFileFStat(fd, VLIBC_STAT_ATTRIBUTES, &status, 0) != 0) {
        return std::nullopt;
    }
    return (status.attributes & VLIBC_ATTR_ARCHIVE) != 0;
}

bool set_archive_bit(int fd) {
    return change_dos_attribute(fd, kSetArchive) == 0;
}

bool clear_archive_bit(int fd) {
    return change_dos_attribute(fd, kClearArchive) == 0;
}

// To clear what is clear changes nothing, and tells whether there is such a thing.
BitKeeping keeping_of_bits(const std::string &directory) {
    const Descriptor opened(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
    struct statvfs volume {};
    if (opened.get() < 0 || ::fstatvfs(opened.get(), &volume) != 0) {
        throw_errno("cannot be opened");
    }
    const bool set = has_archive_bit(opened.get()).value_or(false);
    if (!set && !clear_archive_bit(opened.get()) && errno != EROFS && errno != EACCES && errno != EPERM) {
        return BitKeeping::none;
    }
    return (volume.f_flag & ST_RDONLY) != 0 ? BitKeeping::read_only : BitKeeping::kept;
}

// A lease: the kernel tells its holder by a signal when somebody waits, which is one that does nothing. Nobody waits
// long.
WriteBarrier::WriteBarrier(int fd) : m_fd(fd) {
    (void)::fcntl(fd, F_SETSIG, SIGURG);
    m_stands = ::fcntl(fd, F_SETLEASE, F_RDLCK) == 0;
    m_writer = !m_stands && errno == EAGAIN;
}

WriteBarrier::~WriteBarrier() {
    if (m_stands) {
        (void)::fcntl(m_fd, F_SETLEASE, F_UNLCK);
    }
}

} // namespace engine
