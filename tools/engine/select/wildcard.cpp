#include "tools/engine/select/wildcard.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <optional>

namespace engine {
namespace {

struct NamedSet {
    std::string_view name;
    int (*has)(int);
};
constexpr std::array<NamedSet, 12> kNamedSets = {{{"alnum", isalnum},
                                                  {"alpha", isalpha},
                                                  {"blank", isblank},
                                                  {"cntrl", iscntrl},
                                                  {"digit", isdigit},
                                                  {"graph", isgraph},
                                                  {"lower", islower},
                                                  {"print", isprint},
                                                  {"punct", ispunct},
                                                  {"space", isspace},
                                                  {"upper", isupper},
                                                  {"xdigit", isxdigit}}};

// One element of a pattern that takes one byte: how much of the pattern it is, and whether it takes this one. Nothing,
// and no text is like the pattern: a set that never ends, or that names a set which is not there; a backslash at the
// end.
struct Step {
    size_t length;
    bool takes;
};

// The set behind "[".
class Set {
  public:
    Set(std::string_view pattern, unsigned char byte) : m_pattern(pattern), m_byte(byte) {}

    std::optional<Step> read() {
        const bool inverted = next() == '!' || next() == '^';
        m_at += inverted ? 1U : 0U;
        const size_t first = m_at;
        while (m_at < m_pattern.size() && (m_pattern[m_at] != ']' || m_at == first)) {
            if (!element()) {
                return std::nullopt;
            }
        }
        if (m_at >= m_pattern.size()) {
            return std::nullopt;
        }
        return Step{m_at + 1, m_found != inverted && m_byte != '/'};
    }

  private:
    char next() const { return m_at < m_pattern.size() ? m_pattern[m_at] : '\0'; }

    // A byte of the set, which a backslash may stand before. Nothing: the pattern ends.
    std::optional<unsigned char> byte() {
        m_at += next() == '\\' ? 1U : 0U;
        if (m_at >= m_pattern.size()) {
            return std::nullopt;
        }
        return static_cast<unsigned char>(m_pattern[m_at++]);
    }
    bool element() {
        if (m_pattern.substr(m_at, 2) == "[:") {
            const size_t end = m_pattern.find(']', m_at + 2);
            if (end == std::string_view::npos) {
                return false;
            }
            if (m_pattern[end - 1] == ':' && end > m_at + 2) {
                return named(m_pattern.substr(m_at + 2, end - m_at - 3), end + 1);
            }
        }
        const auto low = byte();
        if (!low) {
            return false;
        }
        auto high = low;
        if (next() == '-' && m_at + 1 < m_pattern.size() && m_pattern[m_at + 1] != ']') {
            ++m_at;
            high = byte();
        }
        // The lower end is in the set also where the upper one lies below it.
        m_found = m_found || m_byte == *low || (high && *low <= m_byte && m_byte <= *high);
        return high.has_value();
    }
    bool named(std::string_view name, size_t behind) {
        for (const NamedSet &set : kNamedSets) {
            if (set.name == name) {
                m_found = m_found || set.has(m_byte) != 0;
                m_at = behind;
                return true;
            }
        }
        return false;
    }

    std::string_view m_pattern;
    unsigned char m_byte;
    size_t m_at = 1;
    bool m_found = false;
};

std::optional<Step> step(std::string_view pattern, unsigned char byte) {
    switch (pattern.front()) {
    case '?':
        return Step{1, byte != '/'};
    case '[':
        return Set(pattern, byte).read();
    case '\\':
        if (pattern.size() == 1) {
            return std::nullopt;
        }
        return Step{2, static_cast<unsigned char>(pattern[1]) == byte};
    default:
        return Step{1, static_cast<unsigned char>(pattern.front()) == byte};
    }
}

// Where to go on when what follows a row of stars does not fit: with one byte more for the stars.
struct Stars {
    size_t behind = 0; // in the pattern
    size_t taken = 0;  // in the text: where what follows was tried last
    bool set = false;
};

} // namespace

// What follows the last stars is tried at each place from the first on. Stars before them need no other place than the
// first that fits: whatever fits behind a later one does behind an earlier one too, but for single stars, which end at
// a slash, while double ones before them may go beyond it.
bool wildcard_matches(std::string_view pattern, std::string_view text) {
    Stars single;
    Stars both;
    size_t at = 0;
    size_t place = 0;
    const auto again = [&] {
        if (single.set && single.taken < text.size() && text[single.taken] != '/') {
            at = single.behind;
            place = ++single.taken;
            return true;
        }
        if (both.set && both.taken < text.size()) {
            at = both.behind;
            place = ++both.taken;
            single.set = false;
            return true;
        }
        return false;
    };
    while (place < text.size() || at < pattern.size()) {
        if (at < pattern.size() && pattern[at] == '*') {
            const size_t end = std::min(pattern.find_first_not_of('*', at), pattern.size());
            Stars &stars = end - at > 1 ? both : single;
            single.set = false;
            stars = {end, place, true};
            at = end;
            continue;
        }
        if (place < text.size() && at < pattern.size()) {
            const auto taken = step(pattern.substr(at), static_cast<unsigned char>(text[place]));
            if (taken && taken->takes) {
                at += taken->length;
                ++place;
                continue;
            }
        }
        if (!again()) {
            return false;
        }
    }
    return true;
}

} // namespace engine
