// A conversion of a store as an object of the output.
#pragma once

#include "tools/engine/stores/conversion.h"
#include "tools/vexofileop/output/json.h"

#include <string>

namespace tool {

Json conversion_event(const engine::Conversion &conversion);

// "FILE: converted from double to eadir", as people read it.
std::string text_of_conversion(const engine::Conversion &conversion);

} // namespace tool
