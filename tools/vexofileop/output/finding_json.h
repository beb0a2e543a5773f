// A finding of a check of stores as an object of the output.
#pragma once

#include "tools/engine/stores/finding.h"
#include "tools/vexofileop/output/json.h"

#include <string>

namespace tool {

// `command`: "store check", "store repair".
Json finding_event(const std::string &command, const engine::Finding &finding);

} // namespace tool
