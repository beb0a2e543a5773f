// The 4096-byte path buffer: bounded, always NUL-terminated, and it remembers that something did not fit.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace vexo {

class PathBuffer {
  public:
    static constexpr size_t kSize = 4096;     // with the terminating NUL
    static constexpr int kUsable = kSize - 1; // the length passed on to functions that fill a buffer

    // Only the first byte is written: these buffers come by the handful, and most stay empty.
    PathBuffer() { m_text[0] = '\0'; }
    explicit PathBuffer(std::string_view text) : PathBuffer() { append(text); }

    // What does not fit is cut, and the buffer is overflowed from then on.
    PathBuffer &append(std::string_view text) {
        const size_t room = kSize - 1 - m_length;
        const size_t taken = text.size() < room ? text.size() : room;
        if (taken > 0) {
            std::memcpy(m_text + m_length, text.data(), taken);
        }
        m_length += taken;
        m_text[m_length] = '\0';
        m_overflowed = m_overflowed || taken < text.size();
        return *this;
    }
    // "parent/name", as directory entries are joined everywhere.
    PathBuffer &join(std::string_view parent, std::string_view name) {
        clear();
        return append(parent).append("/").append(name);
    }
    void clear() {
        cut(0);
        m_overflowed = false;
    }
    void cut(size_t length) {
        m_length = length;
        m_text[length] = '\0';
    }

    // Back to a length it had before something was appended.
    void shorten(size_t length) {
        cut(length);
        m_overflowed = false;
    }

    // Slashes behind a name. Those that are the whole path stay.
    void trim_slashes() {
        while (m_length > 1 && m_text[m_length - 1] == '/') {
            cut(m_length - 1);
        }
    }

    const char *c_str() const { return m_text; }
    std::string_view view() const { return {m_text, m_length}; }
    size_t length() const { return m_length; }
    bool empty() const { return m_length == 0; }
    bool overflowed() const { return m_overflowed; }

    // For a function that fills a buffer of kSize bytes; adopt() afterwards takes the length it left.
    char *fill() { return m_text; }
    void adopt() {
        m_length = ::strnlen(m_text, kSize - 1);
        m_text[m_length] = '\0';
    }

  private:
    size_t m_length = 0;
    bool m_overflowed = false;
    char m_text[kSize];
};

} // namespace vexo
