// Whether two files have the same in their stores.
#pragma once

#include "tools/engine/store/store.h"

#include <string>
#include <vector>

namespace engine {

// Each difference in words; none: they hold the same.
std::vector<std::string> metadata_differences(const Store::Metadata &one, const Store::Metadata &other);

} // namespace engine
