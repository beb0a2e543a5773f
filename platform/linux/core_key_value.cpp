// Key/value files: lines key=value, the value in quotes or not. A line that is empty, begins with "#" or has no "=" is
// not looked at and stays. Blanks around the key and in front of the value do not count. Where a key stands on several
// lines the first counts.
//
// A value in double or single quotes ends at the first such quote with nothing but blanks or a comment behind it; there
// is no escape. A value without quotes goes to the end of the line, blanks at its end included.
#include "platform/core.h"

#include "platform/linux/text_file.h"
#include "support/guards.h"
#include "support/path_buffer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

namespace vexo {
namespace {

int refuse(int number) {
    errno = number;
    return -1;
}

std::string_view without_line_end(std::string_view line) {
    if (line.ends_with('\n')) {
        line.remove_suffix(1);
    }
    if (line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    return line;
}

std::string_view unquoted(std::string_view value) {
    if (value.empty() || (value.front() != '"' && value.front() != '\'')) {
        return value;
    }
    const char quote = value.front();
    value.remove_prefix(1);
    for (size_t at = value.find(quote); at != std::string_view::npos; at = value.find(quote, at + 1)) {
        const std::string_view behind = trim_left(tail(value, at + 1));
        if (behind.empty() || behind.front() == '#') {
            return value.substr(0, at);
        }
    }
    return value; // the closing quote is missing
}

// The value that a line gives `key`; nothing when it is not that key's line.
std::optional<std::string_view> value_in(std::string_view line, std::string_view key) {
    line = trim_left(without_line_end(line));
    const size_t equals = line.find('=');
    if (line.empty() || line.front() == '#' || equals == std::string_view::npos ||
        trim_right(line.substr(0, equals)) != key) {
        return std::nullopt;
    }
    return unquoted(trim_left(tail(line, equals + 1)));
}

bool is_key(std::string_view key) {
    return !key.empty() && key.front() != '#' && trim(key) == key &&
           key.find_first_of("=\n\r") == std::string_view::npos;
}

// A text that grows; once memory ran out it takes nothing more, and says so.
class Text {
  public:
    void append(std::string_view more) {
        if (m_ok && m_bytes.size() - m_length < more.size()) {
            m_ok = m_bytes.resize((m_length + more.size()) * 2);
        }
        if (m_ok && !more.empty()) {
            std::memcpy(m_bytes.data() + m_length, more.data(), more.size());
            m_length += more.size();
        }
    }
    bool ok() const { return m_ok; }
    std::string_view view() const { return {reinterpret_cast<const char *>(m_bytes.data()), m_length}; }

  private:
    HeapBuffer m_bytes;
    size_t m_length = 0;
    bool m_ok = true;
};

// The line for a key by the caller's format: the first "%s" is the key, the second the value, "%%" a percent sign.
// Expanded here, not by printf: a format from outside must not read arguments that are not there. false: another
// conversion, or a line feed before the end.
bool append_line(Text &text, std::string_view format, std::string_view key, std::string_view value) {
    if (format.ends_with('\n')) {
        format.remove_suffix(1);
    }
    if (format.find('\n') != std::string_view::npos) {
        return false;
    }
    const std::string_view arguments[] = {key, value};
    size_t used = 0;
    while (!format.empty()) {
        const size_t percent = std::min(format.find('%'), format.size());
        text.append(format.substr(0, percent));
        format.remove_prefix(percent);
        if (format.starts_with("%%")) {
            text.append("%");
        } else if (format.starts_with("%s") && used < 2) {
            text.append(arguments[used++]);
        } else if (!format.empty()) {
            return false;
        }
        format.remove_prefix(std::min<size_t>(2, format.size()));
    }
    text.append("\n");
    return used == 2;
}

// The file's text with the key's line replaced, or with a line added.
int changed_text(Text &changed, std::string_view before, std::string_view key, std::string_view value,
                 std::string_view format) {
    bool replaced = false;
    for (std::string_view rest = before; !rest.empty();) {
        const std::string_view line = take_line(rest);
        if (!replaced && value_in(line, key)) {
            replaced = true;
            if (!append_line(changed, format, key, value)) {
                return refuse(EINVAL);
            }
        } else {
            changed.append(line);
            if (!line.ends_with('\n')) {
                changed.append("\n");
            }
        }
    }
    if (!replaced && !append_line(changed, format, key, value)) {
        return refuse(EINVAL);
    }
    return changed.ok() ? 0 : refuse(ENOMEM);
}

int write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return -1;
        }
        text.remove_prefix(static_cast<size_t>(written));
    }
    return 0;
}

// Owner first: changing it takes set-ID bits away. Only root can give a file away, and a file of another owner would be
// another file, so that this failure counts.
int take_over(int fd, const struct stat &before) {
    struct stat now {};
    if (::fstat(fd, &now) != 0) {
        return -1;
    }
    if ((now.st_uid != before.st_uid || now.st_gid != before.st_gid) &&
        ::fchown(fd, before.st_uid, before.st_gid) != 0) {
        return -1;
    }
    return ::fchmod(fd, before.st_mode & 07777);
}

// Replaces the file by a new one in one step: a reader, or a machine that loses power, has the one or the other.
// `before` is what the new one takes over, mode 0644 where there is none.
int replace_file(const char *path, std::string_view text, const struct stat *before) {
    PathBuffer temporary;
    temporary.append(path).append(".XXXXXX");
    if (temporary.overflowed()) {
        return refuse(ENAMETOOLONG);
    }
    Fd file(::mkostemp(temporary.fill(), O_CLOEXEC));
    if (!file) {
        return -1;
    }
    const bool written = write_all(file.get(), text) == 0 &&
                         (before == nullptr ? ::fchmod(file.get(), 0644) : take_over(file.get(), *before)) == 0 &&
                         ::fsync(file.get()) == 0 && ::close(file.release()) == 0 &&
                         ::rename(temporary.c_str(), path) == 0;
    if (!written) {
        const KeepErrno keep;
        ::unlink(temporary.c_str());
        return -1;
    }
    return 0;
}

} // namespace
} // namespace vexo

using namespace vexo;

int VLIBCFileGetKeyValue(const char *file, const char *key, char *value, int size, int flags) {
    (void)flags;
    if (file == nullptr || key == nullptr || value == nullptr || size <= 0) {
        return refuse(EINVAL);
    }
    const HeapBuffer text = read_text_file(file);
    if (!text) {
        return -1;
    }
    std::string_view found;
    for (std::string_view rest = view_of(text); !rest.empty();) {
        if (const auto here = value_in(take_line(rest), key)) {
            found = *here;
            break;
        }
    }
    // A NUL inside would make the length differ from what the caller sees.
    found = found.substr(0, std::min({found.find('\0'), found.size(), static_cast<size_t>(size) - 1}));
    found.copy(value, found.size());
    value[found.size()] = '\0';
    return static_cast<int>(found.size());
}

int VLIBCFileSetKeyValue(const char *file, const char *key, const char *value, const char *format) {
    // A line feed in key or value would write lines of their own.
    if (file == nullptr || key == nullptr || value == nullptr || !is_key(key) ||
        std::strpbrk(value, "\n\r") != nullptr) {
        return refuse(EINVAL);
    }
    // A symbolic link stays one: the file behind it is replaced.
    char resolved[PathBuffer::kSize];
    const bool exists = ::realpath(file, resolved) != nullptr;
    if (!exists && errno != ENOENT) {
        return -1;
    }
    struct stat before {};
    HeapBuffer text = exists ? read_text_file(resolved, &before) : HeapBuffer::zeroed(0);
    Text changed;
    if (!text || changed_text(changed, view_of(text), key, value, format == nullptr ? "%s=\"%s\"\n" : format) != 0) {
        return -1;
    }
    return replace_file(exists ? resolved : file, changed.view(), exists ? &before : nullptr) == 0 ? 1 : -1;
} // NOLINT(clang-analyzer-unix.Malloc): the destructor of HeapBuffer frees it
