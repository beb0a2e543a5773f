#include "tests/kit/volumes.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace kit {
namespace {

[[noreturn]] void unavailable(const std::string &what) {
    throw Unavailable{what + ": " + std::strerror(errno)};
}

std::string newDirectory() {
    std::string path = "/tmp/vexofileop-volume-XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) {
        unavailable("mkdtemp");
    }
    ::chmod(path.c_str(), 0755);
    return path;
}

void run(const std::string &command) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0) {
        throw Unavailable{"not possible here: " + command};
    }
}

} // namespace

void enterPrivateMounts() {
    static bool done = false;
    if (done) {
        return;
    }
    if (::geteuid() != 0) {
        throw Unavailable{"needs root for a mount namespace"};
    }
    if (::unshare(CLONE_NEWNS) != 0) {
        unavailable("unshare");
    }
    if (::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) != 0) {
        unavailable("private mounts");
    }
    done = true;
}

Volume::Volume(std::string path, std::string image, std::string made)
    : m_path(std::move(path)), m_image(std::move(image)), m_made(std::move(made)) {}

Volume::Volume(Volume &&other) noexcept
    : m_path(std::exchange(other.m_path, {})), m_image(std::exchange(other.m_image, {})),
      m_made(std::exchange(other.m_made, {})) {}

Volume::~Volume() {
    if (m_path.empty()) {
        return;
    }
    ::umount2(m_path.c_str(), MNT_DETACH);
    if (!m_image.empty() && ::unlink(m_image.c_str()) != 0) {
        ::umount2(m_image.c_str(), MNT_DETACH);
        ::rmdir(m_image.c_str());
    }
    if (!m_made.empty()) {
        ::rmdir(m_made.c_str());
    }
}

Volume Volume::tmpfs(uint64_t bytes, const std::string &at) {
    enterPrivateMounts();
    const std::string path = at.empty() ? newDirectory() : at;
    const std::string options = "mode=0755,size=" + std::to_string(bytes);
    if (::mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()) != 0) {
        unavailable("tmpfs at " + path);
    }
    return {path, {}, at.empty() ? path : std::string()};
}

Volume Volume::plain() {
    enterPrivateMounts();
    const std::string path = newDirectory();
    if (::mount("ramfs", path.c_str(), "ramfs", 0, "mode=0755") != 0) {
        unavailable("ramfs at " + path);
    }
    return {path, {}, path};
}

Volume Volume::loop(const std::string &type, uint64_t bytes, const std::string &mkfsOptions,
                    const std::string &mountOptions) {
    enterPrivateMounts();
    std::string image = "/tmp/vexofileop-image-XXXXXX";
    const int fd = ::mkstemp(image.data());
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        unavailable("image");
    }
    ::close(fd);
    const std::string path = newDirectory();
    try {
        run("PATH=$PATH:/usr/sbin:/sbin mkfs." + type + " " + mkfsOptions + " " + image);
        run("mount -t " + type + " -o loop" + (mountOptions.empty() ? "" : "," + mountOptions) + " " + image + " " +
            path);
    } catch (...) {
        ::unlink(image.c_str());
        ::rmdir(path.c_str());
        throw;
    }
    return {path, image, path};
}

Volume Volume::overlay(const std::string &directory) {
    enterPrivateMounts();
    const std::string layers = newDirectory();
    if (::mount("tmpfs", layers.c_str(), "tmpfs", 0, "mode=0755") != 0) {
        unavailable("tmpfs");
    }
    ::mkdir((layers + "/upper").c_str(), 0755);
    ::mkdir((layers + "/work").c_str(), 0755);
    const std::string options = "lowerdir=" + directory + ",upperdir=" + layers + "/upper,workdir=" + layers + "/work";
    if (::mount("overlay", directory.c_str(), "overlay", 0, options.c_str()) != 0) {
        const int number = errno;
        ::umount2(layers.c_str(), MNT_DETACH);
        ::rmdir(layers.c_str());
        errno = number;
        unavailable("overlay on " + directory);
    }
    return {directory, layers, {}};
}

void Volume::setReadOnly(bool on) const {
    if (::mount(nullptr, m_path.c_str(), nullptr, on ? MS_REMOUNT | MS_RDONLY : +MS_REMOUNT, nullptr) != 0) {
        unavailable("remount of " + m_path);
    }
}

} // namespace kit
