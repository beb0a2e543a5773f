#include "tests/kit/fingerprint.h"

#include "platform/core.h"
#include "tests/kit/faults.h"
#include "tests/kit/scratch.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace kit {
namespace {

std::string typeOf(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG:
        return "file";
    case S_IFDIR:
        return "directory";
    case S_IFLNK:
        return "link";
    case S_IFIFO:
        return "fifo";
    case S_IFSOCK:
        return "socket";
    case S_IFCHR:
        return "character device";
    case S_IFBLK:
        return "block device";
    default:
        return "unknown";
    }
}

std::string hex(const std::string &bytes) {
    static const char *const digits = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        text += digits[value >> 4];
        text += digits[value & 15];
    }
    return text;
}

std::string octal(unsigned value) {
    char text[16];
    std::snprintf(text, sizeof text, "%04o", value);
    return text;
}

std::string timeText(const timespec &time) {
    char text[48];
    std::snprintf(text, sizeof text, "%lld.%09ld", static_cast<long long>(time.tv_sec), time.tv_nsec);
    return text;
}

std::string digestOf(const std::string &path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOATIME);
    if (fd < 0) {
        throw std::runtime_error("open " + path + ": " + std::strerror(errno));
    }
    uint64_t digest = 1469598103934665603ULL; // FNV-1a
    uint64_t size = 0;
    std::vector<char> buffer(1 << 16);
    ssize_t got = 0;
    while ((got = ::read(fd, buffer.data(), buffer.size())) > 0) {
        for (ssize_t at = 0; at < got; ++at) {
            digest = (digest ^ static_cast<unsigned char>(buffer[static_cast<size_t>(at)])) * 1099511628211ULL;
        }
        size += static_cast<uint64_t>(got);
    }
    ::close(fd);
    return std::to_string(size) + " bytes, digest " + std::to_string(digest);
}

std::string holesOf(const std::string &path) {
    std::string text;
    for (const Extent &extent : extentsOf(path)) {
        text += std::to_string(extent.offset) + "+" + std::to_string(extent.length) + " ";
    }
    return text;
}

std::string xattrsOf(const std::string &path, const std::string &prefix) {
    std::vector<char> names(1 << 16);
    const ssize_t size = ::llistxattr(path.c_str(), names.data(), names.size());
    std::map<std::string, std::string> found;
    for (ssize_t at = 0; at < size;) {
        const std::string name = &names[static_cast<size_t>(at)];
        at += static_cast<ssize_t>(name.size()) + 1;
        if (name.compare(0, prefix.size(), prefix) != 0 || name == "user.DOSATTRIB") { // that is "attributes"
            continue;
        }
        std::string value(1 << 16, '\0');
        const ssize_t length = ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
        value.resize(length < 0 ? 0 : static_cast<size_t>(length));
        found[name] = hex(value);
    }
    std::string text;
    for (const auto &[name, value] : found) {
        text.append(name).append("=").append(value).append(" ");
    }
    return text;
}

EntryPrint printOf(const std::string &path) {
    VLIBCStat found{};
    if (VLIBCFileLStat(path.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME, &found) != 0) {
        throw std::runtime_error("stat " + path + ": " + std::strerror(errno));
    }
    const struct stat &st = found.st;
    EntryPrint print;
    print["type"] = typeOf(st.st_mode);
    print["owner"] = std::to_string(st.st_uid) + ":" + std::to_string(st.st_gid);
    print["modified"] = timeText(st.st_mtim);
    print["accessed"] = timeText(st.st_atim);
    if (S_ISLNK(st.st_mode)) {
        std::string target(4096, '\0');
        const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
        print["link"] = target.substr(0, length < 0 ? 0 : static_cast<size_t>(length));
        return print;
    }
    print["mode"] = octal(st.st_mode & 07777U);
    print["created"] = timeText(found.createTime);
    if (S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode)) {
        print["device"] = std::to_string(::major(st.st_rdev)) + ":" + std::to_string(::minor(st.st_rdev));
    }
    if (S_ISREG(st.st_mode)) {
        print["data"] = digestOf(path);
        print["holes"] = holesOf(path);
    }
    if (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode)) {
        print["attributes"] = std::to_string(found.attributes);
        print["acl"] = xattrsOf(path, "system.posix_acl_");
        print["xattrs"] = xattrsOf(path, "user.");
    }
    return print;
}

void collect(const std::string &root, const std::string &below, const std::set<std::string> &leftOut,
             std::map<std::string, EntryPrint> &entries) {
    const std::string path = below.empty() ? root : root + "/" + below;
    EntryPrint print = printOf(path);
    const bool directory = print["type"] == "directory";
    entries[below] = std::move(print);
    if (!directory) {
        return;
    }
    for (const std::string &name : namesIn(path)) {
        if (leftOut.count(name) == 0) {
            collect(root, below.empty() ? name : below + "/" + name, leftOut, entries);
        }
    }
}

} // namespace

Fingerprint Fingerprint::of(const std::string &root, const std::set<std::string> &leftOut) {
    const FaultsOff quiet;
    Fingerprint print;
    if (exists(root)) {
        collect(root, "", leftOut, print.m_entries);
    }
    return print;
}

std::string Fingerprint::differenceTo(const Fingerprint &other, const std::set<std::string> &ignored) const {
    std::string text;
    for (const auto &[path, print] : m_entries) {
        const auto match = other.m_entries.find(path);
        if (match == other.m_entries.end()) {
            text += "\"" + path + "\" is missing\n";
            continue;
        }
        std::set<std::string> names;
        for (const EntryPrint *each : {&print, &match->second}) {
            for (const auto &[name, value] : *each) {
                names.insert(name);
            }
        }
        for (const std::string &name : names) {
            const auto mine = print.find(name);
            const auto its = match->second.find(name);
            const std::string left = mine == print.end() ? "none" : mine->second;
            const std::string right = its == match->second.end() ? "none" : its->second;
            if (ignored.count(name) == 0 && left != right) {
                text += "\"" + path + "\" " + name + ": " + left + " became " + right + "\n";
            }
        }
    }
    for (const auto &[path, print] : other.m_entries) {
        if (m_entries.count(path) == 0) {
            text += "\"" + path + "\" came from nowhere (" + print.at("type") + ")\n";
        }
    }
    return text;
}

} // namespace kit
