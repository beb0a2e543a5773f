#include "tools/vexofileop/arguments/input.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/vexofileop/terminal/signals.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {
namespace {

// Appends what a descriptor has, up to `most` bytes altogether. False: it cannot be read, with errno.
bool read_all(int fd, size_t most, std::string &bytes) {
    char buffer[65536];
    while (bytes.size() < most && wait_readable(fd)) {
        const ssize_t got = ::read(fd, buffer, std::min(sizeof buffer, most - bytes.size()));
        if (got <= 0) {
            return got == 0;
        }
        bytes.append(buffer, static_cast<size_t>(got));
    }
    return true;
}

} // namespace

Descriptor::~Descriptor() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

std::string read_input(const std::string &path) {
    const bool standard = path == "-";
    const Descriptor opened(standard ? -1 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string bytes;
    if ((!standard && opened.get() < 0) || !read_all(standard ? STDIN_FILENO : opened.get(), bytes.max_size(), bytes)) {
        throw_errno(fmt::format("cannot read {}", standard ? "standard input" : displayed(path)));
    }
    return bytes;
}

std::string read_regular_file(const std::string &path, size_t most, uint64_t *size) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat found {};
    if (file.get() < 0 || ::fstat(file.get(), &found) != 0) {
        throw_errno(fmt::format("cannot open {}", displayed(path)));
    }
    if (!S_ISREG(found.st_mode)) {
        throw Failure(fmt::format("{} is no regular file", displayed(path)));
    }
    *size = static_cast<uint64_t>(found.st_size);
    std::string bytes;
    if (!read_all(file.get(), std::min<size_t>(most, *size), bytes)) {
        throw_errno(fmt::format("cannot read {}", displayed(path)));
    }
    return bytes;
}

} // namespace tool
