// What the engine tells, as records between processes.
#pragma once

#include "tools/engine/report/outcome.h"
#include "tools/engine/report/problem.h"
#include "tools/engine/workers/record.h"

#include <optional>

namespace engine {

void write(RecordWriter &to, const std::optional<Problem> &problem);
void write(RecordWriter &to, const Loss &loss);
void write(RecordWriter &to, const Outcome &outcome);
std::optional<Problem> read_problem(RecordReader &from);
Loss read_loss(RecordReader &from);
Outcome read_outcome(RecordReader &from);

} // namespace engine
