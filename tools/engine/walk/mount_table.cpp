#include "tools/engine/walk/mount_table.h"

#include "tools/engine/report/failure.h"

#include <fcntl.h>
#include <fstream>
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

} // namespace

std::vector<Mount> mount_table() {
    std::ifstream table("/proc/self/mountinfo");
    std::vector<Mount> mounts;
    for (std::string line; std::getline(table, line);) {
        std::istringstream words(line);
        Mount mount;
        std::string above, root, place;
        words >> mount.id >> above >> mount.device >> root >> place;
        mount.root = unescaped(root);
        mount.place = unescaped(place);
        mounts.push_back(std::move(mount));
    }
    if (mounts.empty()) {
        throw Failure("the table of mounts cannot be read");
    }
    return mounts;
}

bool is_mount(int above, int directory) {
    struct statx one {
    }, other{};
    return ::statx(above, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &one) == 0 &&
           ::statx(directory, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &other) == 0 &&
           (one.stx_dev_major != other.stx_dev_major || one.stx_dev_minor != other.stx_dev_minor ||
            (other.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0);
}

} // namespace engine
