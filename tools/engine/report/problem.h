// Why something did not work, as a value.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace engine {

// Words, and the library's code where it has one.
struct Problem {
    std::string reason;
    uint32_t code = 0;
    bool withSource = false;     // it is the source's, whatever the destination
    bool needsRecursion = false; // a directory, where the request was for files alone
    bool replaced = false;       // what was placed is not what stands there now
    int number = 0;              // the kernel's, where it is known
};

Problem problem_of(uint32_t code);
// For what the engine itself was refused by the kernel.
Problem problem_of_errno(int number);
// A directory that the request does not reach into.
Problem problem_of_directory();
// An entry that is none, where a slash behind its name asks for a directory.
Problem problem_of_slash(mode_t mode);
// What a move does not empty, since the place where it is mounted cannot go.
Problem problem_of_mount();
// "a named pipe": an entry that is no regular file.
const char *kind_of(mode_t mode);

} // namespace engine
