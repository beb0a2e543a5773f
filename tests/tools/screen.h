// What a person sees: the bytes that a program sent to a terminal, as the rows on its screen.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kit {

// The rows after `bytes` arrived on an empty screen of so many columns, without the empty ones at the end. Knows what
// the tool uses: line feed, carriage return, erasing to the end of the line, and the wrap at the last column. Every
// character is one column wide. Throws for another control character or escape sequence.
std::vector<std::string> rowsOnScreen(std::string_view bytes, size_t columns);

} // namespace kit
