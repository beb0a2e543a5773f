// A number for a text, the same on every machine.
#pragma once

#include <cstdint>
#include <string_view>

namespace engine {

// FNV-1a.
inline uint64_t text_hash(std::string_view text) {
    uint64_t hash = 0xcbf29ce484222325U;
    for (const char byte : text) {
        hash = (hash ^ static_cast<uint8_t>(byte)) * 0x100000001b3U;
    }
    return hash;
}

} // namespace engine
