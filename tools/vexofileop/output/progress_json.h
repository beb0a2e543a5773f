// How far the work is, for programs.
#pragma once

#include "tools/vexofileop/terminal/console.h"

namespace tool {

// Lines of JSON: the event "progress" of the command.
Console::ProgressText progress_text(const char *command);

} // namespace tool
