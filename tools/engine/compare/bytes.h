// Comparing long values a part at a time.
#pragma once

#include <algorithm>
#include <cstdint>

namespace engine {

// Whether same(offset, length) holds for all parts of `size` bytes; ends at the first that differs.
template <typename Same>
bool same_parts(uint64_t size, const Same &same) {
    constexpr uint64_t kPart = uint64_t{1} << 20;
    for (uint64_t at = 0; at < size; at += kPart) {
        if (!same(at, std::min(kPart, size - at))) {
            return false;
        }
    }
    return true;
}

} // namespace engine
