// Big-endian fields in a block of bytes, read and written with bounds checks. A field outside the block is remembered,
// so that a whole layout can be read or written in one go and looked at once at its end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace vexo {

namespace big_endian {
inline uint64_t load(const uint8_t *from, size_t width) {
    uint64_t value = 0;
    for (size_t at = 0; at < width; ++at) {
        value = value << 8 | from[at];
    }
    return value;
}
inline void store(uint8_t *to, uint64_t value, size_t width) {
    for (size_t at = width; at > 0; --at) {
        to[at - 1] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}
} // namespace big_endian

class BigEndianReader {
  public:
    explicit BigEndianReader(std::span<const uint8_t> bytes, size_t at = 0) : m_bytes(bytes), m_at(at) {}

    uint8_t u8() { return static_cast<uint8_t>(take(1)); }
    uint16_t u16() { return static_cast<uint16_t>(take(2)); }
    uint32_t u32() { return static_cast<uint32_t>(take(4)); }
    uint64_t u64() { return take(8); }
    // Copies the next bytes; zero bytes when they are not all there.
    void bytes(void *to, size_t size) {
        if (size == 0) {
            return; // a block of no bytes need not have an address
        }
        if (const uint8_t *from = next(size)) {
            std::memcpy(to, from, size);
        } else {
            std::memset(to, 0, size);
        }
    }
    void skip(size_t size) { next(size); }
    void seek(size_t at) { m_at = at; }

    size_t position() const { return m_at; }
    bool ok() const { return m_ok; }

  private:
    uint64_t take(size_t width) {
        const uint8_t *from = next(width);
        return from == nullptr ? 0 : big_endian::load(from, width);
    }
    const uint8_t *next(size_t size) {
        if (m_at > m_bytes.size() || size > m_bytes.size() - m_at) {
            m_ok = false;
            return nullptr;
        }
        const uint8_t *from = m_bytes.data() + m_at;
        m_at += size;
        return from;
    }

    std::span<const uint8_t> m_bytes;
    size_t m_at;
    bool m_ok = true;
};

class BigEndianWriter {
  public:
    explicit BigEndianWriter(std::span<uint8_t> bytes, size_t at = 0) : m_bytes(bytes), m_at(at) {}

    void u8(uint8_t value) { put(value, 1); }
    void u16(uint16_t value) { put(value, 2); }
    void u32(uint32_t value) { put(value, 4); }
    void u64(uint64_t value) { put(value, 8); }
    void bytes(const void *from, size_t size) {
        if (uint8_t *to = next(size); to != nullptr && size > 0) {
            std::memcpy(to, from, size);
        }
    }
    void zeros(size_t size) {
        if (uint8_t *to = next(size); to != nullptr && size > 0) {
            std::memset(to, 0, size);
        }
    }
    void seek(size_t at) { m_at = at; }

    size_t position() const { return m_at; }
    bool ok() const { return m_ok; }

  private:
    void put(uint64_t value, size_t width) {
        if (uint8_t *to = next(width)) {
            big_endian::store(to, value, width);
        }
    }
    uint8_t *next(size_t size) {
        if (m_at > m_bytes.size() || size > m_bytes.size() - m_at) {
            m_ok = false;
            return nullptr;
        }
        uint8_t *to = m_bytes.data() + m_at;
        m_at += size;
        return to;
    }

    std::span<uint8_t> m_bytes;
    size_t m_at;
    bool m_ok = true;
};

} // namespace vexo
