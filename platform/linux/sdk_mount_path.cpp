// Where the volume that holds a path is mounted.
#include "platform/sdk.h"

#include "platform/linux/text_file.h"
#include "support/path_buffer.h"

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/stat.h>

namespace vexo {
namespace {

struct CloseFile {
    void operator()(FILE *file) const { std::fclose(file); }
};

// A line grown by getline.
struct Line {
    Line() = default;
    Line(const Line &) = delete;
    Line &operator=(const Line &) = delete;
    ~Line() { std::free(text); }

    char *text = nullptr;
    size_t size = 0;
};

// The n-th word of a line, counted from 0, between single blanks.
std::string_view word(std::string_view line, int number) {
    for (; number > 0; --number) {
        const size_t blank = line.find(' ');
        line.remove_prefix(blank == std::string_view::npos ? line.size() : blank + 1);
    }
    return line.substr(0, line.find(' '));
}

bool is_octal(std::string_view digits) {
    return digits.size() == 3 && digits.find_first_not_of("01234567") == std::string_view::npos;
}

// The kernel writes a blank, a tab, a line feed, a backslash and "#" in paths as a backslash and three octal digits.
void append_unescaped(PathBuffer &path, std::string_view text) {
    while (!text.empty()) {
        const size_t plain = text.find('\\');
        path.append(text.substr(0, plain));
        if (plain == std::string_view::npos) {
            return;
        }
        text.remove_prefix(plain);
        if (const std::string_view digits = tail(text, 1).substr(0, 3); is_octal(digits)) {
            const char letter = static_cast<char>((digits[0] - '0') * 64 + (digits[1] - '0') * 8 + (digits[2] - '0'));
            path.append({&letter, 1});
            text.remove_prefix(4);
        } else {
            path.append(text.substr(0, 1));
            text.remove_prefix(1);
        }
    }
}

// The mount point of the mount with this number, in this process's mount namespace. Words of a line: number, parent,
// device, root, mount point, …
int find_mount_point(uint64_t mount, PathBuffer &path) {
    const std::unique_ptr<FILE, CloseFile> table(std::fopen("/proc/self/mountinfo", "re"));
    if (table == nullptr) {
        return -1;
    }
    Line line;
    for (;;) {
        const ssize_t length = ::getline(&line.text, &line.size, table.get());
        if (length < 0) {
            errno = ENOENT; // outside what this process can see, as after a chroot
            return -1;
        }
        const std::string_view text(line.text, static_cast<size_t>(length));
        const std::string_view first = word(text, 0);
        uint64_t number = 0;
        const auto parsed = std::from_chars(first.data(), first.data() + first.size(), number);
        if (parsed.ec == std::errc() && number == mount) {
            append_unescaped(path, word(text, 4));
            return 0;
        }
    }
}

} // namespace
} // namespace vexo

using namespace vexo;

int VEXOFSMntPathGet(const char *path, char *mountPath, int size) {
    if (path == nullptr || mountPath == nullptr || size <= 0) {
        errno = EINVAL;
        return -1;
    }
    // The kernel names the mount that a path is on by its number, so that neither a bind mount nor a volume mounted
    // over another is mistaken for its neighbour.
    struct statx found {};
    if (::statx(AT_FDCWD, path, 0, STATX_MNT_ID, &found) != 0) {
        return -1;
    }
    if ((found.stx_mask & STATX_MNT_ID) == 0) {
        errno = ENOSYS; // Linux before 5.8
        return -1;
    }
    PathBuffer mountPoint;
    if (find_mount_point(found.stx_mnt_id, mountPoint) != 0) {
        return -1;
    }
    return put_text(mountPoint.view(), mountPath, size) ? 0 : -1;
}
