// Sizes and times as people write them.
#pragma once

#include <cstdint>
#include <string>
#include <time.h>

namespace tool {

// Bytes: "4096", "10K", "1.5M", "2G", "1T" in steps of 1024, also as "KiB"; "10KB" and its like in steps of 1000.
// Throws UsageError that names the option.
int64_t parse_size(const char *option, const std::string &text);

// Bytes a second as rsync has them: a size, where a number without a unit is in steps of 1024 bytes; 0 is no limit.
// Throws UsageError that names the option.
int64_t parse_rate(const char *option, const std::string &text);

// A whole number, `least` or more. Throws UsageError that names the option.
int parse_count(const char *option, const std::string &text, int least);

// A moment: "2026-01-31", "2026-01-31 12:30" or with seconds, in local time; "@SECONDS" since 1970; an age, "90s",
// "15m", "12h", "7d", "2w", back from `now`; with a slash the path of a file, whose modification time it is. Throws
// UsageError that names the option.
timespec parse_moment(const char *option, const std::string &text, const timespec &now);

} // namespace tool
