// Parts of a text that is not a C string of its own.
#pragma once

#include <cstddef>
#include <string_view>

namespace vexo {

// What follows behind the first `count` characters, which are there. (substr() throws where they are not, and so needs
// the C++ run-time library.)
constexpr std::string_view behind(std::string_view text, size_t count) {
    text.remove_prefix(count);
    return text;
}

} // namespace vexo
