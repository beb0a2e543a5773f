// The option --jobs.
#pragma once

#include "tools/engine/workers/hands.h"
#include "tools/vexofileop/arguments/parser.h"

namespace tool {

// `jobs` stays 0 where the option is not given.
void add_jobs_option(const Command &command, int &jobs, const char *text = "so many processes share the work");

// So many processes, which leave stops to this one.
engine::Hands hands_of(int jobs);

} // namespace tool
