#include "tools/engine/report/names.h"

#include <cstdint>
#include <fmt/format.h>

namespace engine {
namespace {

struct Lead {
    size_t length;
    char32_t least; // smaller code points in this length are overlong
    uint8_t mask, bits;
};
constexpr Lead kLeads[] = {{1, 0, 0x80, 0x00}, {2, 0x80, 0xE0, 0xC0}, {3, 0x800, 0xF0, 0xE0}, {4, 0x10000, 0xF8, 0xF0}};

bool is_control(char32_t point) {
    return point < 0x20 || (point >= 0x7F && point < 0xA0);
}

// Marks and overrides that let a name look like another one, and the separators of lines.
bool rearranges_display(char32_t point) {
    return point == 0x061C || (point >= 0x200E && point <= 0x200F) || (point >= 0x2028 && point <= 0x202E) ||
           (point >= 0x2066 && point <= 0x2069);
}

void append_displayed(std::string &out, std::string_view bytes, const Utf8Character &character) {
    switch (character.point) {
    case '\\':
        out += "\\\\";
        return;
    case '\n':
        out += "\\n";
        return;
    case '\t':
        out += "\\t";
        return;
    case '\r':
        out += "\\r";
        return;
    default:
        break;
    }
    if (!character.valid || is_control(character.point)) {
        for (const char byte : bytes) {
            out += fmt::format("\\x{:02x}", static_cast<uint8_t>(byte));
        }
    } else if (rearranges_display(character.point)) {
        out += fmt::format("\\u{:04x}", static_cast<uint32_t>(character.point));
    } else {
        out += bytes;
    }
}

} // namespace

Utf8Character first_character(std::string_view text) {
    const auto byte_at = [&](size_t at) { return static_cast<uint8_t>(text[at]); };
    constexpr char32_t none = 0xFFFD;
    for (const Lead &lead : kLeads) {
        if ((byte_at(0) & lead.mask) != lead.bits) {
            continue;
        }
        if (text.size() < lead.length) {
            break;
        }
        char32_t point = byte_at(0) & static_cast<uint8_t>(~lead.mask);
        for (size_t at = 1; at < lead.length; ++at) {
            if ((byte_at(at) & 0xC0) != 0x80) {
                return {1, none, false};
            }
            point = (point << 6) | (byte_at(at) & 0x3F);
        }
        const bool surrogate = point >= 0xD800 && point <= 0xDFFF;
        if (point < lead.least || surrogate || point > 0x10FFFF) {
            break;
        }
        return {lead.length, point, true};
    }
    return {1, none, false};
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const Utf8Character character = first_character(text);
        if (!character.valid) {
            return false;
        }
        text.remove_prefix(character.length);
    }
    return true;
}

std::string displayed(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const Utf8Character character = first_character(text);
        append_displayed(out, text.substr(0, character.length), character);
        text.remove_prefix(character.length);
    }
    return out;
}

std::string as_utf8(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const Utf8Character character = first_character(text);
        out += character.valid ? text.substr(0, character.length) : std::string_view("\xEF\xBF\xBD");
        text.remove_prefix(character.length);
    }
    return out;
}

} // namespace engine
