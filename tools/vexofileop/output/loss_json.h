// What was lost on the way, for programs: the same from every command.
#pragma once

#include "tools/engine/losses/loss.h"
#include "tools/vexofileop/output/json.h"

#include <string>

namespace tool {

// {"event":"loss","class":…,"severity":…,"source":…,"destination":…,"detail":…}
Json loss_event(const std::string &source, const std::string &destination, const engine::Loss &loss);

} // namespace tool
