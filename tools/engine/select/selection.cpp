#include "tools/engine/select/selection.h"

#include <algorithm>
#include <fmt/format.h>

namespace engine {
namespace {

bool is_earlier(const timespec &one, const timespec &other) {
    return one.tv_sec != other.tv_sec ? one.tv_sec < other.tv_sec : one.tv_nsec < other.tv_nsec;
}

// Calls line(number, text) for each that says something, until one answers false.
template <typename Line>
void for_each_line(std::string_view lines, const Line &line) {
    for (int number = 1; !lines.empty(); ++number) {
        const size_t length = std::min(lines.find('\n'), lines.size());
        std::string_view text = lines.substr(0, length);
        lines.remove_prefix(std::min(lines.size(), length + 1));
        text.remove_suffix(text.ends_with('\r') ? 1 : 0);
        if (!text.empty() && text.front() != '#' && text.front() != ';' && !line(number, text)) {
            return;
        }
    }
}

// Takes the word that a rule begins with off it.
std::string_view take_word(std::string_view &text) {
    const std::string_view word = text.substr(0, text.find_first_of(" _"));
    text.remove_prefix(std::min(text.size(), word.size() + 1));
    return word;
}

} // namespace

void Selection::add_prefixed(std::string_view text, bool include) {
    if (text == "!") {
        m_rules.clear();
        return;
    }
    if (text.starts_with("- ") || text.starts_with("+ ")) {
        include = text.front() == '+';
        text.remove_prefix(2);
    }
    m_rules.push_back({Pattern(text), include, false});
}

void Selection::exclude(std::string_view text) {
    add_prefixed(text, false);
}

void Selection::include(std::string_view text) {
    add_prefixed(text, true);
}

void Selection::exclude_lines(std::string_view lines) {
    for_each_line(lines, [this](int, std::string_view line) {
        exclude(line);
        return true;
    });
}

std::optional<std::string> Selection::add_rule(std::string_view text) {
    std::string_view pattern = text;
    std::string_view word = take_word(pattern);
    if (word == "!" || word == "clear") {
        m_rules.clear();
        return pattern.empty() ? std::nullopt : std::optional<std::string>("\"clear\" takes no pattern");
    }
    const bool inverted = word.size() > 1 && word.ends_with('!');
    word.remove_suffix(inverted ? 1 : 0);
    word.remove_suffix(inverted && word.ends_with(',') ? 1 : 0);
    const bool include = word == "+" || word == "include";
    if (!include && word != "-" && word != "exclude") {
        return fmt::format("\"{}\" begins no rule; \"- PATTERN\" and \"+ PATTERN\" do", word);
    }
    if (pattern.empty()) {
        return "a pattern is missing";
    }
    m_rules.push_back({Pattern(pattern), include, inverted});
    return std::nullopt;
}

std::optional<std::string> Selection::add_rules(std::string_view lines) {
    std::optional<std::string> wrong;
    for_each_line(lines, [&](int number, std::string_view line) {
        if (const auto problem = add_rule(line)) {
            wrong = fmt::format("line {}: {}", number, *problem);
        }
        return !wrong;
    });
    return wrong;
}

bool Selection::takes_everything() const {
    return m_rules.empty() && !leastSize && !mostSize && !notBefore && !before && !archivedAlone && !oneFileSystem &&
           !asked;
}

bool Selection::takes_name(std::string_view path, bool directory) const {
    const auto rule = std::ranges::find_if(
        m_rules, [&](const Rule &one) { return one.pattern.matches(path, directory) != one.inverted; });
    return (rule == m_rules.end() || rule->include) && (!asked || asked(path, directory));
}

bool Selection::takes(const struct stat &entry) const {
    if (!S_ISREG(entry.st_mode)) {
        return true;
    }
    return (!leastSize || entry.st_size >= *leastSize) && (!mostSize || entry.st_size <= *mostSize) &&
           (!notBefore || !is_earlier(entry.st_mtim, *notBefore)) && (!before || is_earlier(entry.st_mtim, *before));
}

} // namespace engine
