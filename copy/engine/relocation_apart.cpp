#include "copy/engine/relocation_apart.h"

#include "support/fd.h"
#include "support/heap.h"
#include "support/path_buffer.h"
#include "support/text.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo {
namespace {

bool holds(std::string_view directory, std::string_view path) {
    return directory == "/" ||
           (path.starts_with(directory) && (path.size() == directory.size() || path[directory.size()] == '/'));
}

bool is_absence(int number) {
    return number == ENOENT || number == ENOTDIR;
}

// A directory as the kernel finds it: where its name stands, and what it leads to.
class Place {
  public:
    explicit Place(const char *path) {
        if (::realpath(path, m_target.fill()) != nullptr) {
            m_target.adopt();
            struct stat status;
            if (::stat(path, &status) == 0) {
                m_status = status;
            }
        } else {
            m_unknown = !is_absence(errno);
            m_target.clear();
        }
        PathBuffer trimmed(path);
        trimmed.trim_slashes();
        const std::string_view text = trimmed.view();
        const size_t slash = text.rfind('/');
        const PathBuffer parent(slash == std::string_view::npos ? "." : slash == 0 ? "/" : text.substr(0, slash));
        if (text == "/" || ::realpath(parent.c_str(), m_name.fill()) == nullptr) {
            m_unknown = m_unknown || (text != "/" && !is_absence(errno));
            m_name.clear();
            m_name.append(m_target.view());
            return;
        }
        m_name.adopt();
        if (m_name.view() == "/") {
            m_name.clear();
        }
        m_name.append("/").append(behind(text, slash + 1)); // without a slash: from the beginning
    }

    // Something kept it from being looked at.
    bool is_unknown() const { return m_unknown; }
    bool is_resolved() const { return !m_name.empty(); }
    std::string_view name() const { return m_name.view(); }
    // The name, where nothing is there.
    std::string_view target() const { return m_target.empty() ? m_name.view() : m_target.view(); }
    const std::optional<struct stat> &status() const { return m_status; }

  private:
    PathBuffer m_name;
    PathBuffer m_target;
    std::optional<struct stat> m_status = {};
    bool m_unknown = false;
};

bool resolves_into(const Place &one, const Place &other) {
    return holds(other.target(), one.target()) || holds(other.target(), one.name()) ||
           holds(other.name(), one.target()) || holds(other.name(), one.name());
}

// By inode: the same directory may be mounted at two places.
bool lies_in(const Place &one, const Place &other) {
    if (!other.status()) {
        return false;
    }
    std::string_view path = one.target();
    for (;;) {
        struct stat status;
        if (::stat(PathBuffer(path).c_str(), &status) == 0 && status.st_dev == other.status()->st_dev &&
            status.st_ino == other.status()->st_ino) {
            return true;
        }
        const size_t slash = path.rfind('/');
        if (slash == 0 || slash == std::string_view::npos) {
            return false;
        }
        path = path.substr(0, slash);
    }
}

// What is mounted where, as the kernel tells it to this process: a line a mount, "id parent device root point …".
class Mounts {
  public:
    Mounts() {
        constexpr size_t kPiece = 16384;
        const Fd file(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
        m_known = !file && is_absence(errno); // no such thing here: inodes have to do
        while (file && m_text.resize(m_length + kPiece)) {
            const ssize_t length = ::read(file.get(), m_text.data() + m_length, kPiece);
            if (length <= 0) {
                m_known = length == 0;
                break;
            }
            m_length += static_cast<size_t>(length);
        }
    }

    bool are_known() const { return m_known; }

    // Whether some part of a file system belongs to both paths, or to what is mounted below them.
    bool share_anything(std::string_view one, std::string_view other) const {
        return any_part(one, [&](std::string_view device, std::string_view part) {
            return any_part(other, [&](std::string_view otherDevice, std::string_view otherPart) {
                return device == otherDevice && (holds(part, otherPart) || holds(otherPart, part));
            });
        });
    }

  private:
    struct Mount {
        std::string_view device;
        PathBuffer root;  // in its file system
        PathBuffer point; // where it is mounted
    };

    // Blanks, line feeds and backslashes are octal there.
    static void decode(std::string_view text, PathBuffer &out) {
        for (size_t at = 0; at < text.size(); ++at) {
            char byte = text[at];
            if (byte == '\\' && at + 3 < text.size()) {
                byte = static_cast<char>((text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 + (text[at + 3] - '0'));
                at += 3;
            }
            out.append({&byte, 1});
        }
    }
    static std::string_view take(std::string_view &text, char end) {
        const size_t length = text.find(end);
        const std::string_view taken = text.substr(0, length);
        text.remove_prefix(length == std::string_view::npos ? text.size() : length + 1);
        return taken;
    }
    static Mount parse(std::string_view line) {
        Mount mount;
        (void)take(line, ' ');
        (void)take(line, ' ');
        mount.device = take(line, ' ');
        decode(take(line, ' '), mount.root);
        decode(take(line, ' '), mount.point);
        return mount;
    }

    // Asks of the part of a file system that `path` is, and of each that is mounted below it.
    template <typename Question>
    bool any_part(std::string_view path, Question question) const {
        std::string_view rest(reinterpret_cast<const char *>(m_text.data()), m_length);
        std::string_view device;
        PathBuffer part;
        size_t nearest = 0;
        while (!rest.empty()) {
            const Mount mount = parse(take(rest, '\n'));
            const std::string_view point = mount.point.view();
            if (holds(point, path)) {
                if (point.size() < nearest) { // a later one at the same place hides the one before
                    continue;
                }
                nearest = point.size();
                device = mount.device;
                part.clear();
                part.append(mount.root.view() == "/" ? std::string_view() : mount.root.view());
                part.append(behind(path, point == "/" ? 0 : point.size()));
            } else if (holds(path, point) && question(mount.device, mount.root.view())) {
                return true;
            }
        }
        return nearest > 0 && question(device, part.empty() ? std::string_view("/") : part.view());
    }

    HeapBuffer m_text;
    size_t m_length = 0;
    bool m_known = false;
};

} // namespace

bool are_apart(const char *one, const char *other) {
    const Place first(one);
    const Place second(other);
    if (first.is_unknown() || second.is_unknown()) {
        return false;
    }
    if (!first.is_resolved() || !second.is_resolved()) {
        return true;
    }
    const Mounts mounts;
    return !resolves_into(first, second) && !resolves_into(second, first) && !lies_in(first, second) &&
           !lies_in(second, first) && mounts.are_known() && !mounts.share_anything(first.target(), second.target());
}

} // namespace vexo
