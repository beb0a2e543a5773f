// A path taken apart into directory and base, and the bounded text that a companion's path is put together in.
#pragma once

#include "support/heap.h"
#include "support/path_buffer.h"

#include <cstddef>
#include <cstring>
#include <span>
#include <string_view>

namespace vexo {

// A copy of a path without one trailing "/". It lies on the stack, or in memory of its own when it is too long for
// that.
class PathCopy {
  public:
    PathCopy() = default;
    PathCopy(const PathCopy &) = delete;
    PathCopy &operator=(const PathCopy &) = delete;

    // false: out of memory.
    [[nodiscard]] bool assign(const char *path) {
        m_length = m_given = std::strlen(path);
        if (m_given >= PathBuffer::kUsable) {
            m_long = HeapBuffer::uninitialised(m_given + 1);
            if (!m_long) {
                return false;
            }
            m_text = reinterpret_cast<char *>(m_long.data());
        }
        std::memcpy(m_text, path, m_given + 1);
        if (m_length > 0 && m_text[m_length - 1] == '/') {
            cut(m_length - 1);
        }
        return true;
    }
    void cut(size_t length) {
        m_length = length;
        m_text[length] = '\0';
    }

    // The length as given, with the trailing "/".
    size_t given_length() const { return m_given; }
    size_t length() const { return m_length; }
    const char *c_str() const { return m_text; }
    // With its "/"; empty when there is none.
    std::string_view directory() const { return {m_text, base_at()}; }
    std::string_view base() const { return {m_text + base_at(), m_length - base_at()}; }
    std::span<char> base_bytes() { return {m_text + base_at(), m_length - base_at()}; }

  private:
    size_t base_at() const {
        const size_t slash = std::string_view(m_text, m_length).rfind('/');
        return slash == std::string_view::npos ? 0 : slash + 1;
    }

    char m_short[PathBuffer::kSize];
    char *m_text = m_short;
    HeapBuffer m_long;
    size_t m_given = 0;
    size_t m_length = 0;
};

// Appends to a caller's buffer of `size` bytes, at least 1: always NUL-terminated, and what does not fit is cut.
class TextOut {
  public:
    TextOut(char *out, int size) : m_out(out), m_room(static_cast<size_t>(size) - 1) { *out = '\0'; }
    // Behind the text that is there already.
    static TextOut behind(char *out, int size) {
        const size_t there = ::strnlen(out, static_cast<size_t>(size) - 1);
        return {out + there, size - static_cast<int>(there)};
    }

    TextOut &append(std::string_view text) {
        const size_t taken = text.size() < m_room ? text.size() : m_room;
        if (taken > 0) {
            std::memcpy(m_out, text.data(), taken);
        }
        m_out += taken;
        m_room -= taken;
        *m_out = '\0';
        return *this;
    }

  private:
    char *m_out;
    size_t m_room;
};

} // namespace vexo
