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
    bool sameFile = false;       // source and destination are one
    bool replaced = false;       // what was placed is not what stands there now
    int number = 0;              // the kernel's, where it is known
};

Problem problem_of(uint32_t code);
// For what the engine itself was refused by the kernel.
Problem problem_of_errno(int number);
// A volume that has room, but none for the name and the place of one more file.
Problem problem_of_no_inode();
// Whether that is what a full volume is full of, by an open directory of it.
bool lacks_inodes(int directory);
// Says so of what failed for want of room, by the path of what was to be made; anything else stays as it is.
void name_what_is_full(Problem &problem, const std::string &place);
// A directory in which names can be given and none taken away, so that a private one would stay.
Problem problem_of_append_only();
// The same, as one of the source.
Problem of_source(Problem problem);
// A directory that the request does not reach into.
Problem problem_of_directory();
// What a list of directories names beside them.
Problem not_a_directory_of_list();
// An entry that is none, where a slash behind its name asks for a directory.
Problem problem_of_slash(mode_t mode);
// A directory below so many others that a walk has no room to go into it.
Problem problem_of_depth();
// What a move does not empty, since the place where it is mounted cannot go.
Problem problem_of_mount();
// Of a path that cannot be looked at, with `number` for errno: that it is such an entry, else what errno says.
Problem problem_of_look(const std::string &path, int number);
// "a named pipe": an entry that is no regular file.
const char *kind_of(mode_t mode);

} // namespace engine
