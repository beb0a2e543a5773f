#include "tools/engine/report/problem.h"

#include "tools/engine/report/error_table.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace engine {
namespace {

constexpr uint32_t kMissing = 0x0700, kOther = 0x8000, kExists = 0xA300;

struct ErrnoCode {
    int number;
    uint32_t code;
};
constexpr ErrnoCode kErrnoCodes[] = {
    {ENOENT, kMissing}, {ENOTDIR, kMissing},    {EACCES, 0x0300},  {EPERM, 0x0300},  {EROFS, 0x0300},
    {EISDIR, 0xA200},   {ENAMETOOLONG, 0xC300}, {ENOSPC, 0x2900},  {EDQUOT, 0x2400}, {EIO, 0x6C00},
    {ENXIO, 0x6C00},    {EHOSTDOWN, 0x1100},    {EEXIST, kExists},
};

} // namespace

Problem problem_of(uint32_t code) {
    return {std::string(reason_of(code)), code};
}

Problem problem_of_errno(int number) {
    Problem problem{std::strerror(number), kOther};
    for (const ErrnoCode &row : kErrnoCodes) {
        if (row.number == number) {
            problem = problem_of(row.code);
        }
    }
    problem.number = number;
    return problem;
}

Problem problem_of_directory() {
    return {.reason = "is a directory", .needsRecursion = true};
}

Problem problem_of_slash(mode_t mode) {
    const char *const kind = S_ISREG(mode) ? "a file" : kind_of(mode);
    return {std::string("is ") + kind + ", not a directory; give it without the slash"};
}

Problem problem_of_mount() {
    return {.reason = "mounted volume below; it stays with its content, of which nothing is copied",
            .withSource = true};
}

const char *kind_of(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFDIR:
        return "a directory";
    case S_IFLNK:
        return "a symbolic link";
    case S_IFIFO:
        return "a named pipe";
    case S_IFSOCK:
        return "a socket";
    case S_IFBLK:
    case S_IFCHR:
        return "a device";
    default:
        return "no regular file";
    }
}

} // namespace engine
