#include "tools/vexofileop/arguments/input.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/vexofileop/terminal/signals.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace tool {
namespace {

// Appends what a descriptor has. False: it cannot be read, with errno.
bool read_all(int fd, std::string &bytes) {
    char buffer[65536];
    while (wait_readable(fd)) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got <= 0) {
            return got == 0;
        }
        bytes.append(buffer, static_cast<size_t>(got));
    }
    return true;
}

} // namespace

std::string read_input(const std::string &path) {
    const bool standard = path == "-";
    const engine::Descriptor opened(standard ? -1 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string bytes;
    if ((!standard && opened.get() < 0) || !read_all(standard ? STDIN_FILENO : opened.get(), bytes)) {
        engine::throw_errno(fmt::format("cannot read {}", standard ? "standard input" : engine::displayed(path)));
    }
    return bytes;
}

} // namespace tool
