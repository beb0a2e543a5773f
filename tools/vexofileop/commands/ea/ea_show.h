// What `vexofileop ea show` prints of a file's stores.
#pragma once

#include "tools/vexofileop/output/json.h"

#include <string>
#include <vector>

namespace tool {

// One store of a file, ready to be printed: the place it lies in, and its bytes.
struct ShownStore {
    std::string what;  // "attribute stream", "resource file", "\"._\" file", "metadata attribute"
    std::string place; // its path, or the attribute's name
    std::string bytes; // the first of it
    uint64_t size;     // of all of it
};

// The stores that a file has; for the path of a store itself, that one. Throws Failure.
std::vector<ShownStore> stores_of(const std::string &path);

// Lines for people; and the same for programs. `sound` becomes false for a malformed store.
std::vector<std::string> store_lines(const ShownStore &store, bool *sound);
Json store_json(const ShownStore &store, bool *sound);

} // namespace tool
