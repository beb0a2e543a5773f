// What became of an entry, in the words of messages and of --json.
#pragma once

#include "tools/engine/report/outcome.h"
#include "tools/vexofileop/output/json.h"

#include <string>

namespace tool {

const char *word_of(engine::Status status);  // "done"
const char *word_of(engine::EntryKind kind); // "file"

inline constexpr const char *kCopyRecursion = "-r copies it with everything in it";
// "SUBJECT: REASON (0xA300)". `recursion` says which option reaches into a directory, for a problem that asks for one.
std::string problem_text(const std::string &subject, const engine::Problem &problem, const char *recursion = "");
// The same for programs: its code and reason.
Json problem_object(const engine::Problem &problem, const char *recursion = "");

} // namespace tool
