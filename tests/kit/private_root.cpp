#include "tests/kit/private_root.h"

#include "tests/kit/scratch.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kit {

PrivateRoot::PrivateRoot()
    : m_volume(Volume::tmpfs(64 << 20)), m_directoryBefore(std::filesystem::current_path()),
      m_rootBefore(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    const std::string proc = m_volume / "proc";
    if (m_rootBefore < 0 || ::mkdir(proc.c_str(), 0755) != 0 || ::mkdir((m_volume / "tmp").c_str(), 0755) != 0 ||
        ::mount("/proc", proc.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0 ||
        ::chroot(m_volume.path().c_str()) != 0 || ::chdir("/") != 0) {
        const int number = errno;
        ::close(m_rootBefore);
        throw Unavailable{std::string("private root: ") + std::strerror(number)};
    }
}

PrivateRoot::~PrivateRoot() {
    // A process that stayed behind here would see an empty machine: better none at all.
    if (::fchdir(m_rootBefore) != 0 || ::chroot(".") != 0 || ::chdir(m_directoryBefore.c_str()) != 0) {
        std::abort();
    }
    ::close(m_rootBefore);
}

void PrivateRoot::put(const std::string &path, std::string_view content) const {
    makeDirectory(std::filesystem::path(path).parent_path());
    writeFile(path, content);
}

void PrivateRoot::makeDirectory(const std::string &path) const {
    std::filesystem::create_directories(path);
}

} // namespace kit
