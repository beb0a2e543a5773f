// Wildcards in a text.
#pragma once

#include <string_view>

namespace engine {

// Whether the whole text is as the pattern says (pattern.h). Time grows with the product of the two lengths, times that
// of the text where `**` and `*` stand in one pattern; no pattern makes it grow faster.
bool wildcard_matches(std::string_view pattern, std::string_view text);

} // namespace engine
