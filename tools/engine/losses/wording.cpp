#include "tools/engine/losses/wording.h"

#include <cstring>
#include <fmt/format.h>

namespace engine {

std::string link_refused_text(int number) {
    return fmt::format("is a symbolic link, which cannot be made there: {}", std::strerror(number));
}

std::string too_large_text(uint64_t size, uint64_t limit) {
    return limit != 0 && size >= limit ? fmt::format("{} bytes, where the volume takes less than {}", size, limit)
                                       : fmt::format("{} bytes are too many for the volume", size);
}

std::string too_long_text(size_t size) {
    return fmt::format("{} bytes are more than the volume takes", size);
}

std::string only_first_text(const char *word, const std::string &name, uint64_t size) {
    return fmt::format("{} {}: only at the first, {} bytes", word, name, size);
}

std::string only_second_text(const char *word, const std::string &name) {
    return fmt::format("{} {}: only at the second", word, name);
}

} // namespace engine
