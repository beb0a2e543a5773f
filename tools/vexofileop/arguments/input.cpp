#include "tools/vexofileop/arguments/input.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/vexofileop/terminal/signals.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {
namespace {

// How much an input may have, and why no more.
struct Limit {
    uint64_t most;
    bool forWantOfSize;
};

[[noreturn]] void throw_too_long(const std::string &what, const Limit &limit) {
    throw engine::Failure(
        fmt::format("{} has more than {} bytes{}", what, limit.most,
                    limit.forWantOfSize ? ", and does not say how many; write them into a file first" : ""));
}

// Appends what a descriptor has, up to one byte more than `most`. False: it cannot be read, with errno.
bool read_all(int fd, uint64_t most, std::string &bytes) {
    char buffer[65536];
    while (bytes.size() <= most && wait_readable(fd)) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EAGAIN) {
            continue; // somebody else was quicker
        }
        if (got <= 0) {
            return got == 0;
        }
        bytes.append(buffer, static_cast<size_t>(got));
    }
    return true;
}

} // namespace

std::string read_input(const std::string &path, uint64_t most, uint64_t mostWithoutSize) {
    const bool standard = path == "-";
    const std::string what = standard ? "standard input" : engine::displayed(path);
    // Opening a pipe would wait for its writer, which no signal ends; wait_readable() waits for it just as well.
    const engine::Descriptor opened(standard ? -1 : ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const int fd = standard ? STDIN_FILENO : opened.get();
    struct stat found {};
    // Files of the kernel's say that they are empty.
    const bool sized = fd >= 0 && ::fstat(fd, &found) == 0 && S_ISREG(found.st_mode) && found.st_size > 0;
    const Limit limit{sized ? most : std::min(most, mostWithoutSize), !sized && mostWithoutSize < most};
    if (sized && static_cast<uint64_t>(found.st_size) > most) {
        throw_too_long(what, limit);
    }
    std::string bytes;
    if (fd < 0 || !read_all(fd, limit.most, bytes)) {
        engine::throw_errno(fmt::format("cannot read {}", what));
    }
    if (bytes.size() > limit.most) {
        throw_too_long(what, limit);
    }
    return bytes;
}

} // namespace tool
