// Bytes in hexadecimal digits, and back.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tool {

// "00ff0a"
std::string hex_digits(std::string_view bytes);
// Nothing for what is not pairs of digits.
std::optional<std::string> bytes_of_hex(std::string_view digits);
// Lines of 16 bytes for people: the place, the bytes, and the letters among them. At most 78 columns.
std::string hex_dump(std::string_view bytes);

} // namespace tool
