// Room on the stack for walks that call themselves once for each directory on the way down.
#pragma once

namespace engine {

// Takes more of the stack's address space than a program has by default, where its hard limit allows that: enough for
// some ten thousand directories below each other. Before the first call of the next.
void raise_stack_limit();

// Whether one more level may be entered, with what is called there. False: whoever asks leaves the directory as it is
// and tells; without this question the program would end by a signal.
bool has_stack_room();

} // namespace engine
