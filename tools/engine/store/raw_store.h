// The stores of a file as they lie there: places and bytes.
#pragma once

#include "tools/engine/walk/held_entry.h"

#include <cstdint>
#include <string>
#include <vector>

namespace engine {

struct RawStore {
    std::string what;  // "attribute stream", "resource file", "\"._\" file", "metadata attribute", "attribute"
    std::string place; // its path, or the attribute's name
    std::string bytes; // the first of it
    uint64_t size;     // of all of it
};

// The stores that a file has; for a store itself, that one. Throws Failure.
std::vector<RawStore> raw_stores_of(const HeldEntry &entry);

} // namespace engine
