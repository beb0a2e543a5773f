// Owners of memory from malloc. Nothing here throws: an allocation that failed leaves the owner empty, and the caller
// looks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace vexo {

// A block of bytes.
class HeapBuffer {
  public:
    HeapBuffer() = default;
    HeapBuffer(HeapBuffer &&other) noexcept : m_data(other.m_data), m_size(other.m_size) { other.forget(); }
    HeapBuffer &operator=(HeapBuffer &&other) noexcept {
        if (this != &other) {
            std::free(m_data);
            m_data = other.m_data;
            m_size = other.m_size;
            other.forget();
        }
        return *this;
    }
    HeapBuffer(const HeapBuffer &) = delete;
    HeapBuffer &operator=(const HeapBuffer &) = delete;
    ~HeapBuffer() { std::free(m_data); }

    // At least one byte is asked for, so that a buffer of size 0 is not taken for a failure.
    static HeapBuffer zeroed(size_t size) { return HeapBuffer(std::calloc(size == 0 ? 1 : size, 1), size); }
    static HeapBuffer uninitialised(size_t size) { return HeapBuffer(std::malloc(size == 0 ? 1 : size), size); }

    explicit operator bool() const { return m_data != nullptr; }
    uint8_t *data() { return m_data; }
    const uint8_t *data() const { return m_data; }
    size_t size() const { return m_size; }

    // Keeps the content up to the smaller size. false: out of memory, and the buffer is as it was.
    [[nodiscard]] bool resize(size_t size) {
        void *moved = std::realloc(m_data, size == 0 ? 1 : size);
        if (moved == nullptr) {
            return false;
        }
        m_data = static_cast<uint8_t *>(moved);
        m_size = size;
        return true;
    }

  private:
    HeapBuffer(void *data, size_t size) : m_data(static_cast<uint8_t *>(data)), m_size(data == nullptr ? 0 : size) {}
    void forget() {
        m_data = nullptr;
        m_size = 0;
    }

    uint8_t *m_data = nullptr;
    size_t m_size = 0;
};

// A NUL-terminated string of its own, for the C functions that write into their argument.
class HeapString {
  public:
    HeapString() = default;
    explicit HeapString(const char *text) : m_text(::strdup(text)) {}
    HeapString(HeapString &&other) noexcept : m_text(other.release()) {}
    HeapString &operator=(HeapString &&other) noexcept {
        if (this != &other) {
            std::free(m_text);
            m_text = other.release();
        }
        return *this;
    }
    HeapString(const HeapString &) = delete;
    HeapString &operator=(const HeapString &) = delete;
    ~HeapString() { std::free(m_text); }

    explicit operator bool() const { return m_text != nullptr; }
    char *get() { return m_text; }
    const char *get() const { return m_text; }
    char *release() {
        char *text = m_text;
        m_text = nullptr;
        return text;
    }

  private:
    char *m_text = nullptr;
};

} // namespace vexo
