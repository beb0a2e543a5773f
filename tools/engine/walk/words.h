// Paths and other bytes as words of a note: one without a blank, a line feed or anything that no text has.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace engine {

std::string word_of(std::string_view text);
// Nothing: it is no such word.
std::optional<std::string> text_of_word(std::string_view word);

} // namespace engine
