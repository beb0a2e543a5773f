#include "tests/kit/scratch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/xattr.h>
#include <unistd.h>

namespace kit {
namespace {

[[noreturn]] void failed(const std::string &what, const std::string &path) {
    throw std::runtime_error(what + " " + path + ": " + std::strerror(errno));
}

void writeAll(int fd, std::string_view content, const std::string &path) {
    while (!content.empty()) {
        const ssize_t written = ::write(fd, content.data(), content.size());
        if (written < 0) {
            failed("write", path);
        }
        content.remove_prefix(static_cast<size_t>(written));
    }
}

} // namespace

ScratchDirectory::ScratchDirectory() {
    const char *base = std::getenv("TMPDIR");
    m_path = std::string(base == nullptr || *base == '\0' ? "/tmp" : base) + "/vexofileop-test-XXXXXX";
    if (::mkdtemp(m_path.data()) == nullptr) {
        failed("mkdtemp", m_path);
    }
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

void writeFile(const std::string &path, std::string_view content, mode_t mode) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        failed("open", path);
    }
    writeAll(fd, content, path);
    ::close(fd);
    if (::chmod(path.c_str(), mode) != 0) {
        failed("chmod", path);
    }
}

std::string readFile(const std::string &path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        failed("open", path);
    }
    std::string content;
    // Most files are small, and they are read often: a large block would be mostly pages to clear.
    std::array<char, 16384> block; // NOLINT(cppcoreguidelines-pro-type-member-init): read() fills it
    for (;;) {
        const ssize_t got = ::read(fd, block.data(), block.size());
        if (got < 0) {
            failed("read", path);
        }
        if (got == 0) {
            break;
        }
        content.append(block.data(), static_cast<size_t>(got));
    }
    ::close(fd);
    return content;
}

bool exists(const std::string &path) {
    struct stat out {};
    return ::lstat(path.c_str(), &out) == 0;
}

struct stat statOf(const std::string &path) {
    struct stat out {};
    if (::lstat(path.c_str(), &out) != 0) {
        out = {};
    }
    return out;
}

std::vector<std::string> namesIn(const std::string &directory) {
    std::vector<std::string> names;
    DIR *stream = ::opendir(directory.c_str());
    if (stream == nullptr) {
        failed("opendir", directory);
    }
    while (const dirent *entry = ::readdir(stream)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    ::closedir(stream);
    std::sort(names.begin(), names.end());
    return names;
}

std::string makeDeepDirectory(const std::string &root, size_t length) {
    constexpr size_t kLongestName = 200;
    std::string path = root;
    while (path.size() < length) {
        const size_t left = length - path.size() - 1;
        // One byte alone would be the next "/".
        path += "/" + std::string(left == kLongestName + 1 ? kLongestName - 1 : std::min(kLongestName, left), 'd');
        if (::mkdir(path.c_str(), 0755) != 0) {
            failed("mkdir", path);
        }
    }
    return path;
}

std::string pattern(size_t size, uint32_t seed) {
    std::string content(size, '\0');
    uint32_t state = seed * 2654435761U + 1;
    for (char &byte : content) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<char>(state >> 24);
    }
    return content;
}

void writeSparse(const std::string &path, off_t size, const std::vector<Extent> &extents, uint32_t seed) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ::ftruncate(fd, size) != 0) {
        failed("create", path);
    }
    for (const Extent &extent : extents) {
        ::lseek(fd, extent.offset, SEEK_SET);
        writeAll(fd, pattern(static_cast<size_t>(extent.length), seed++), path);
    }
    ::close(fd);
}

std::vector<Extent> extentsOf(const std::string &path) {
    std::vector<Extent> extents;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        failed("open", path);
    }
    off_t at = 0;
    for (;;) {
        const off_t data = ::lseek(fd, at, SEEK_DATA);
        if (data < 0) {
            break;
        }
        at = ::lseek(fd, data, SEEK_HOLE);
        extents.push_back({data, at - data});
    }
    ::close(fd);
    return extents;
}

void setAttribute(const std::string &path, const std::string &name, std::string_view value) {
    if (::setxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) != 0) {
        failed("setxattr", path);
    }
}

std::string attribute(const std::string &path, const std::string &name) {
    std::string value(65536, '\0');
    const ssize_t got = ::getxattr(path.c_str(), name.c_str(), value.data(), value.size());
    value.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return value;
}

} // namespace kit
