// AppleDouble headers for tests, byte by byte.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace adouble_bytes {

inline std::string number(uint64_t value, size_t width) {
    std::string text(width, '\0');
    for (size_t at = width; at > 0; --at) {
        text[at - 1] = static_cast<char>(value & 0xff);
        value >>= 8;
    }
    return text;
}

struct Entry {
    uint32_t id, offset, length;
};

// The entries of the metadata attribute in the order of their slots, as they are written.
inline const std::vector<Entry> kMetadata = {
    {4, 154, 0},          {8, 354, 16},         {9, 122, 32},         {14, 370, 4},
    {0x80444556, 374, 0}, {0x80494E4F, 382, 0}, {0x8053594E, 390, 0}, {0x8053567E, 398, 0},
};

// A header with those entries, filled up with zero bytes to `size`.
inline std::string header(const std::vector<Entry> &entries, size_t size, uint32_t magic = 0x00051607,
                          uint32_t version = 0x00020000, const std::string &filler = std::string(16, '\0')) {
    std::string text = number(magic, 4) + number(version, 4) + filler + number(entries.size(), 2);
    for (const Entry &entry : entries) {
        text += number(entry.id, 4) + number(entry.offset, 4) + number(entry.length, 4);
    }
    text.resize(size, '\0');
    return text;
}

inline std::string metadata(size_t size = 402) {
    return header(kMetadata, size);
}

} // namespace adouble_bytes
