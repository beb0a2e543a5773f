#include "tools/engine/walk/descriptor.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {

Descriptor::~Descriptor() {
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

Descriptor open_directory(int parent, const std::string &name) {
    return Descriptor(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(written > 0 ? static_cast<size_t>(written) : 0);
    }
    return true;
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
    const size_t wanted = std::min<size_t>(most, *size);
    std::string bytes;
    char buffer[65536];
    while (bytes.size() < wanted) {
        const ssize_t got = ::read(file.get(), buffer, std::min(sizeof buffer, wanted - bytes.size()));
        if (got < 0) {
            throw_errno(fmt::format("cannot read {}", displayed(path)));
        }
        if (got == 0) {
            break; // cut meanwhile
        }
        bytes.append(buffer, static_cast<size_t>(got));
    }
    return bytes;
}

} // namespace engine
