// Small texts that the platform reads: a whole file into memory, its lines, and a few comparisons. Nothing here
// reports; failures leave errno.
#pragma once

#include "support/fd.h"
#include "support/heap.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace vexo {

// No configuration is larger; what is has another purpose and is refused with EFBIG.
inline constexpr size_t kLargestText = size_t{16} << 20;

// The content of a regular file. Empty owner with errno: it cannot be read. `status` may be null.
inline HeapBuffer read_text_file(const char *path, struct stat *status = nullptr) {
    // O_NONBLOCK: a pipe in the file's place must not make the caller wait.
    const Fd file(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat found {};
    if (!file || ::fstat(file.get(), &found) != 0) {
        return {};
    }
    if (!S_ISREG(found.st_mode) || found.st_size > static_cast<off_t>(kLargestText)) {
        errno = S_ISREG(found.st_mode) ? EFBIG : S_ISDIR(found.st_mode) ? EISDIR : EINVAL;
        return {};
    }
    // One byte more than the size tells the end from a file that grows.
    HeapBuffer text = HeapBuffer::uninitialised(static_cast<size_t>(found.st_size) + 1);
    size_t length = 0;
    while (text) {
        if (length == text.size() && (text.size() > kLargestText || !text.resize(text.size() * 2))) {
            errno = text.size() > kLargestText ? EFBIG : ENOMEM;
            return {};
        }
        const ssize_t got = ::read(file.get(), text.data() + length, text.size() - length);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return {};
        }
        if (got == 0) {
            break;
        }
        length += static_cast<size_t>(got);
    }
    if (text && !text.resize(length)) {
        return {};
    }
    if (text && status != nullptr) {
        *status = found;
    }
    return text;
}

inline std::string_view view_of(const HeapBuffer &text) {
    return {reinterpret_cast<const char *>(text.data()), text.size()};
}

// Takes the first line, with its line feed, off `rest`. Empty at the end.
inline std::string_view take_line(std::string_view &rest) {
    const size_t end = rest.find('\n');
    const std::string_view line = rest.substr(0, end == std::string_view::npos ? rest.size() : end + 1);
    rest.remove_prefix(line.size());
    return line;
}

// What is behind the first `at` letters. (The standard substr() throws where there are fewer.)
inline std::string_view tail(std::string_view text, size_t at) {
    text.remove_prefix(at < text.size() ? at : text.size());
    return text;
}

inline bool is_blank(char letter) {
    return letter == ' ' || letter == '\t' || letter == '\r' || letter == '\n' || letter == '\f' || letter == '\v';
}
inline std::string_view trim_left(std::string_view text) {
    while (!text.empty() && is_blank(text.front())) {
        text.remove_prefix(1);
    }
    return text;
}
inline std::string_view trim_right(std::string_view text) {
    while (!text.empty() && is_blank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}
inline std::string_view trim(std::string_view text) {
    return trim_left(trim_right(text));
}

// Whether `path` is `directory` or lies in it, by the text of both: "/a/b" is in "/a", "/ab" is not.
inline bool path_is_in(std::string_view path, std::string_view directory) {
    while (directory.size() > 1 && directory.ends_with('/')) {
        directory.remove_suffix(1);
    }
    if (directory == "/") {
        return path.starts_with('/');
    }
    return !directory.empty() && path.starts_with(directory) &&
           (path.size() == directory.size() || path[directory.size()] == '/');
}

// Puts a text into a caller's buffer. false with errno ERANGE: it does not fit, and the buffer is as it was.
inline bool put_text(std::string_view text, char *out, int size) {
    if (out == nullptr || size <= 0 || text.size() >= static_cast<size_t>(size)) {
        errno = ERANGE;
        return false;
    }
    text.copy(out, text.size());
    out[text.size()] = '\0';
    return true;
}

} // namespace vexo
