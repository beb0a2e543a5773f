// Where the work is, for whoever asks by a signal: written down as it goes on, and told from a signal handler, so that
// an answer comes also while one call takes long.
#pragma once

#include <cstdint>
#include <string_view>

namespace tool {

// The command, from a text that stays; the clock starts.
void note_command(const char *command);
// A total of 0 is not known.
void note_totals(int64_t bytes, int64_t files);
void note_done(int64_t bytes, int64_t files);
// What is being worked on: its end where it is long.
void note_path(std::string_view path);

// One line on stderr, as far as it is known:
//     vexofileop: copy: 12 of 345 files, 1.2 of 2.6 GiB, 0:12; at /photos/a.jpg
// May be called by a signal handler; leaves errno as it was.
void tell_status();

} // namespace tool
