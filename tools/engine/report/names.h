// File names as people and programs can read them. A name is any bytes but "/" and NUL: line feeds, escape sequences
// and broken UTF-8 included.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace engine {

// The first character of `text`: its length in bytes and its code point. A length of 1 with `valid` false is a byte
// that is no UTF-8. `text` is not empty.
struct Utf8Character {
    size_t length;
    char32_t point;
    bool valid;
};
Utf8Character first_character(std::string_view text);

bool is_utf8(std::string_view text);

// `text` for a terminal or a log, always on one line and reversible: a backslash becomes "\\", control characters "\n",
// "\t", "\r" or "\x1b", bytes that are no UTF-8 "\xff", and characters that change the direction or the lines of a
// display "\u202e".
std::string displayed(std::string_view text);

// `text` as valid UTF-8: each byte that is none becomes U+FFFD.
std::string as_utf8(std::string_view text);

} // namespace engine
