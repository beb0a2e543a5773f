// Ctrl-C and its relatives: the first one asks the work to stop, the second ends the program.
#pragma once

#include <sys/types.h>

namespace tool {

// From now on the first SIGINT, SIGTERM and SIGHUP each set a flag; the second of a kind has its default effect. What
// was ignored when the program started (nohup, a job in the background) stays ignored. SIGPIPE is ignored: work goes on
// when nobody reads the output any more. SIGUSR1 prints where the work is (status_note.h).
void watch_signals();

// From now on SIGTSTP (Ctrl-Z) takes what is_line_drawn() tells off the terminal before the program stops, and stops
// its helpers until it goes on, unless it was ignored. Without a call of this it just stops.
void watch_pauses();

// Whether a line without its end stands on the terminal, which a signal handler has to take away first. The handler
// sets it back.
void set_line_drawn(bool drawn);
bool is_line_drawn();
// How long the program has been stopped by SIGTSTP so far.
double paused_seconds();

// A process that works for this one: it stands still while this one does, whoever was told to. From the moment that it
// is there until its end is asked for. Of more than a few hundred at a time some work on.
void add_helper(pid_t process);
void remove_helper(pid_t process);
// In such a process: what is to end the work, or asks where it is, is for the one above to understand.
void become_helper();

// The signal that asked to stop; 0: none so far.
int stop_signal();

// Waits until `fd` can be read, for at most so many milliseconds (-1: for ever). False when that time passed or a stop
// signal came first, or had come before.
bool wait_readable(int fd, int milliseconds = -1);

} // namespace tool
