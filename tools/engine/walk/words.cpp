#include "tools/engine/walk/words.h"

#include <charconv>
#include <fmt/format.h>

namespace engine {

std::string word_of(std::string_view text) {
    std::string word;
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        word += byte > 0x20 && byte < 0x7f && byte != '%' ? std::string(1, letter) : fmt::format("%{:02x}", byte);
    }
    return word;
}

std::optional<std::string> text_of_word(std::string_view word) {
    std::string text;
    for (size_t at = 0; at < word.size(); ++at) {
        if (word[at] != '%') {
            text += word[at];
            continue;
        }
        unsigned char byte = 0;
        const std::string_view digits = word.substr(at + 1, 2);
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
        if (digits.size() != 2 || error != std::errc() || end != digits.data() + 2) {
            return std::nullopt;
        }
        text += static_cast<char>(byte);
        at += 2;
    }
    return text;
}

} // namespace engine
