#include "tools/vexofileop/output/hex.h"

#include <charconv>
#include <cstdint>
#include <fmt/format.h>

namespace tool {

std::string hex_digits(std::string_view bytes) {
    std::string digits;
    for (const char byte : bytes) {
        digits += fmt::format("{:02x}", static_cast<uint8_t>(byte));
    }
    return digits;
}

std::optional<std::string> bytes_of_hex(std::string_view digits) {
    std::string bytes;
    for (size_t at = 0; at < digits.size(); at += 2) {
        const std::string_view pair = digits.substr(at, 2);
        uint8_t byte = 0;
        const auto [end, error] = std::from_chars(pair.data(), pair.data() + pair.size(), byte, 16);
        if (pair.size() != 2 || error != std::errc() || end != pair.data() + pair.size()) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<char>(byte));
    }
    return bytes;
}

std::string hex_dump(std::string_view bytes) {
    constexpr size_t perLine = 16;
    std::string text;
    for (size_t at = 0; at < bytes.size(); at += perLine) {
        std::string values;
        std::string letters;
        for (const char byte : bytes.substr(at, perLine)) {
            values += fmt::format("{:02x} ", static_cast<uint8_t>(byte));
            letters += byte >= 0x20 && byte < 0x7f ? byte : '.';
        }
        text += fmt::format("{:08x}  {:<48} |{}|\n", at, values, letters);
    }
    return text;
}

} // namespace tool
