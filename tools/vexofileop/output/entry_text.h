// What became of an entry, in the words of messages and of --json.
#pragma once

#include "tools/engine/report/outcome.h"
#include "tools/vexofileop/output/json.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

const char *word_of(engine::Status status);  // "done"
const char *word_of(engine::EntryKind kind); // "file"

// "1 file", "2 files".
std::string amount_text(int64_t number, const char *one, const char *several);

inline constexpr const char *kCopyRecursion = "-r copies it with everything in it";
// "SUBJECT: REASON (0xA300)". `recursion` says which option reaches into a directory, for a problem that asks for one.
std::string problem_text(const std::string &subject, const engine::Problem &problem, const char *recursion = "");
// The same for programs: its code and reason.
Json problem_object(const engine::Problem &problem, const char *recursion = "");

// Of an entry that took the place of another one: what is left of that. See Outcome.
void add_replaced(Json &entry, bool inPlace, const std::string &backup, int64_t oldNames,
                  const std::vector<std::string> &oldNamesKnown);

} // namespace tool
