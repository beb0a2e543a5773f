#include "tools/engine/walk/mounts.h"

#include "tools/engine/report/failure.h"

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <sys/stat.h>

namespace engine {
namespace {

bool is_octal(const std::string &text, size_t at) {
    return at + 3 < text.size() && text[at] == '\\' && text[at + 1] >= '0' && text[at + 1] <= '3' &&
           text[at + 2] >= '0' && text[at + 2] <= '7' && text[at + 3] >= '0' && text[at + 3] <= '7';
}

// Blanks, line feeds and backslashes stand there as "\040".
std::string unescaped(const std::string &text) {
    std::string out;
    for (size_t at = 0; at < text.size(); ++at) {
        if (is_octal(text, at)) {
            out += static_cast<char>((text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 + (text[at + 3] - '0'));
            at += 3;
        } else {
            out += text[at];
        }
    }
    return out;
}

std::string real_path(const std::string &path) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    return real == nullptr ? path : real.get();
}

// The places of all mounts, as the kernel's table has them.
std::vector<std::string> places() {
    std::ifstream table("/proc/self/mountinfo");
    std::vector<std::string> found;
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        std::string word;
        for (int count = 0; count < 5; ++count) {
            words >> word;
        }
        found.push_back(unescaped(word));
    }
    if (found.empty()) {
        throw Failure("the table of mounts cannot be read");
    }
    return found;
}

} // namespace

std::optional<std::string> mount_in(const std::string &path, bool itself) {
    const std::string wanted = real_path(path);
    for (const std::string &place : places()) {
        if ((itself && place == wanted) || place.starts_with(wanted == "/" ? "/" : wanted + "/")) {
            return place;
        }
    }
    return std::nullopt;
}

std::vector<std::string> mounts_below(const std::string &path) {
    const std::string top = real_path(path) == "/" ? "" : real_path(path);
    std::set<std::string> found; // one over another is one place
    for (const std::string &place : places()) {
        if (place.starts_with(top + "/") && place != "/") {
            found.insert(place.substr(top.size()));
        }
    }
    return {found.begin(), found.end()};
}

bool is_mount_root(int directory, dev_t above) {
    struct statx found {};
    if (::statx(directory, "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_TYPE, &found) == 0 &&
        (found.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0) {
        return (found.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    }
    struct stat own {};
    return ::fstat(directory, &own) == 0 && own.st_dev != above;
}

} // namespace engine
