#include "tests/kit/volumes.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
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

// What makes a volume that one of several drivers mounts.
std::string maker_of(const std::string &type) {
    return type == "ntfs-3g" ? "mkfs.ntfs -F -Q" : type == "exfat-fuse" ? "mkfs.exfat" : "mkfs." + type;
}

std::string newImage(const std::string &maker, uint64_t bytes) {
    std::string image = "/tmp/vexofileop-image-XXXXXX";
    const int fd = ::mkstemp(image.data());
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        unavailable("image");
    }
    ::close(fd);
    try {
        run("PATH=$PATH:/usr/sbin:/sbin " + maker + " " + image);
    } catch (...) {
        ::unlink(image.c_str());
        throw;
    }
    return image;
}

std::string loopDevice(const std::string &image) {
    const std::unique_ptr<FILE, int (*)(FILE *)> pipe(::popen(("losetup --show -f " + image).c_str(), "re"), ::pclose);
    char line[64] = "";
    if (pipe == nullptr || std::fgets(line, sizeof line, pipe.get()) == nullptr) {
        throw Unavailable{"not possible here: losetup"};
    }
    return {line, std::strcspn(line, "\n")};
}

// Lets a driver end, which an unmounted one does by itself.
void end(pid_t driver) {
    if (driver > 0) {
        ::kill(driver, SIGTERM);
        ::waitpid(driver, nullptr, 0);
    }
}

bool is_mounted(const std::string &path, dev_t before) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 && found.st_dev != before;
}

// A driver in the foreground, mounted at `path`. It ends with this process, however that ends: it would keep the mount
// namespace alive. It is asked to, and whoever kills this process with its group does not reach it: killed as the last
// one of the namespace it would unmount what only it could answer for, and wait for itself.
pid_t drive(const std::string &command, const std::string &path) {
    struct stat before {};
    if (::stat(path.c_str(), &before) != 0) {
        unavailable(path);
    }
    const std::string line = "PATH=$PATH:/usr/sbin:/sbin; exec " + command + " </dev/null >/dev/null 2>&1";
    const pid_t driver = ::fork();
    if (driver < 0) {
        unavailable("fork");
    }
    if (driver == 0) {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        ::execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
        ::_exit(127);
    }
    constexpr useconds_t pause = 2000;
    constexpr int most = 150'000; // five minutes, which nothing but a fault explains
    for (int tries = 0; tries < most && !is_mounted(path, before.st_dev); ++tries) {
        if (::waitpid(driver, nullptr, WNOHANG) == driver) {
            throw Unavailable{"not possible here: " + command};
        }
        ::usleep(pause);
    }
    return driver;
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

Volume::Volume(std::string path, std::string image, std::string made, pid_t driver)
    : m_path(std::move(path)), m_image(std::move(image)), m_made(std::move(made)), m_driver(driver) {}

Volume::Volume(Volume &&other) noexcept
    : m_path(std::exchange(other.m_path, {})), m_image(std::exchange(other.m_image, {})),
      m_made(std::exchange(other.m_made, {})), m_driver(std::exchange(other.m_driver, -1)) {}

Volume::~Volume() {
    if (m_path.empty()) {
        return;
    }
    ::umount2(m_path.c_str(), MNT_DETACH);
    end(m_driver);
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
    const std::string image = newImage(maker_of(type) + " " + mkfsOptions, bytes);
    const std::string path = newDirectory();
    try {
        run("mount -t " + type + " -o loop" + (mountOptions.empty() ? "" : "," + mountOptions) + " " + image + " " +
            path);
    } catch (...) {
        ::unlink(image.c_str());
        ::rmdir(path.c_str());
        throw;
    }
    return {path, image, path};
}

Volume Volume::fuse(const std::string &type, uint64_t bytes, const std::string &options) {
    enterPrivateMounts();
    const std::string image = newImage(maker_of(type), bytes);
    const std::string path = newDirectory(), more = options.empty() ? "" : " -o " + options;
    try {
        if (type == "exfat-fuse") { // takes block devices only
            const std::string device = loopDevice(image);
            Volume volume(path, image, path, drive("mount.exfat-fuse -d" + more + " " + device + " " + path, path));
            run("losetup -d " + device); // when its last user ends
            return volume;
        }
        return {path, image, path, drive(type + " -o no_detach" + more + " " + image + " " + path, path)};
    } catch (...) {
        ::unlink(image.c_str());
        ::rmdir(path.c_str());
        throw;
    }
}

Volume Volume::mirror(const std::string &directory) {
    enterPrivateMounts();
    const std::string path = newDirectory();
    try {
        return {path, {}, path, drive("bindfs -f -o attr_timeout=0,entry_timeout=0 " + directory + " " + path, path)};
    } catch (...) {
        ::rmdir(path.c_str());
        throw;
    }
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
