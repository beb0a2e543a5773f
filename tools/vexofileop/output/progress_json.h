// How far the work is, for programs.
#pragma once

#include "tools/vexofileop/terminal/console.h"

namespace tool {

// Lines of JSON: the event "progress" of the command. `first`: the phase that it begins with.
Console::ProgressText progress_text(const char *command, const char *first);

} // namespace tool
