// Stream files as the tests write them: byte by byte, without the library.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace stream {

inline std::string number(uint64_t value, int width) {
    std::string bytes;
    for (int shift = (width - 1) * 8; shift >= 0; shift -= 8) {
        bytes += static_cast<char>(value >> shift);
    }
    return bytes;
}
inline std::string zeros(size_t count) {
    return std::string(count, '\0');
}

using Attributes = std::vector<std::pair<std::string, std::string>>;

inline size_t recordSize(const std::string &name) {
    const size_t size = 11 + name.size() + 1;
    return (size + 3) / 4 * 4;
}

// Header, records and values of a well-kept file; the resource fork follows where there is one.
inline std::string bytes(const Attributes &attributes, uint32_t forkLength = 0,
                         std::string_view finderInfo = std::string_view()) {
    size_t start = 120;
    std::string values;
    for (const auto &[name, value] : attributes) {
        start += recordSize(name);
        values += value;
    }
    const size_t end = start + values.size();
    std::string records;
    size_t at = start;
    for (const auto &[name, value] : attributes) {
        records += number(at, 4) + number(value.size(), 4) + number(0, 2) + number(name.size() + 1, 1) + name + '\0';
        records.append(recordSize(name) - 12 - name.size(), '\0');
        at += value.size();
    }
    std::string info(finderInfo);
    info.resize(32);
    return number(0x00051607, 4) + number(0x00020000, 4) + "Mac OS X        " + number(2, 2) + //
           number(9, 4) + number(50, 4) + number(end - 50, 4) +                                //
           number(2, 4) + number(end, 4) + number(forkLength, 4) +                             //
           info + zeros(2) + "ATTR" + number(0, 4) + number(end, 4) + number(start, 4) + number(values.size(), 4) +
           zeros(12) + number(0, 2) + number(attributes.size(), 2) + records + values;
}

} // namespace stream
