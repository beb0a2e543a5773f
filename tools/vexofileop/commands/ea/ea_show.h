// What `vexofileop ea show` prints of a file's stores.
#pragma once

#include "tools/engine/store/raw_store.h"
#include "tools/vexofileop/output/json.h"

#include <string>
#include <vector>

namespace tool {

// Lines for people; and the same for programs. `sound` becomes false for a malformed store.
std::vector<std::string> store_lines(const engine::RawStore &store, bool *sound);
Json store_json(const engine::RawStore &store, bool *sound);

} // namespace tool
