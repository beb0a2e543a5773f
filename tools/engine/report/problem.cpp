#include "tools/engine/report/problem.h"

#include "tools/engine/report/codes.h"
#include "tools/engine/report/error_table.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace engine {
namespace {

constexpr char kNoInode[] = "no inode left on the volume, which has room but takes no more files";

struct ErrnoCode {
    int number;
    uint32_t code;
};
constexpr ErrnoCode kErrnoCodes[] = {
    {ENOENT, kMissing}, {ENOTDIR, kMissing},    {EACCES, 0x0300},   {EPERM, 0x0300},  {EROFS, kReadOnly},
    {EISDIR, 0xA200},   {ENAMETOOLONG, 0xC300}, {ENOSPC, kNoSpace}, {EDQUOT, 0x2400}, {EIO, 0x6C00},
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

Problem problem_of_no_inode() {
    return {kNoInode, kNoSpace};
}

namespace {

// A few may have become free again with what had to be taken back. A file system without a table of them says 0 of 0.
bool lacks_inodes(const struct statvfs &volume) {
    constexpr fsfilcnt_t few = 2;
    constexpr fsblkcnt_t someBlocks = 16;
    return volume.f_files > 0 && volume.f_ffree <= few && volume.f_bfree > someBlocks;
}

} // namespace

bool lacks_inodes(int directory) {
    struct statvfs volume {};
    return ::fstatvfs(directory, &volume) == 0 && lacks_inodes(volume);
}

// What was to be made is not there, and neither may be the directory for it.
void name_what_is_full(Problem &problem, const std::string &place) {
    if (problem.code != kNoSpace || problem.withSource) {
        return;
    }
    struct statvfs volume {};
    std::string directory = place;
    int result = -1;
    for (size_t slash = directory.rfind('/'); result != 0 && slash != std::string::npos && slash > 0;
         slash = directory.rfind('/')) {
        directory.resize(slash);
        result = ::statvfs(directory.c_str(), &volume);
    }
    if (result == 0 && lacks_inodes(volume)) {
        problem.reason = kNoInode;
    }
}

Problem problem_of_append_only() {
    Problem problem = problem_of_errno(EPERM);
    problem.reason = "its directory is append-only: a copy could not get its name there";
    return problem;
}

Problem of_source(Problem problem) {
    problem.withSource = true;
    return problem;
}

Problem not_a_directory_of_list() {
    return {"is no directory, and a list of directories is asked for"};
}

Problem problem_of_directory() {
    return {.reason = "is a directory", .needsRecursion = true};
}

Problem problem_of_slash(mode_t mode) {
    const char *const kind = S_ISREG(mode) ? "a file" : kind_of(mode);
    return {std::string("is ") + kind + ", not a directory; give it without the slash"};
}

Problem problem_of_depth() {
    return {.reason = "lies too deep: there is no room on the stack for more directories below each other",
            .withSource = true};
}

Problem problem_of_mount() {
    return {.reason = "mounted volume below; it stays with its content, of which nothing is copied",
            .withSource = true};
}

Problem problem_of_look(const std::string &path, int number) {
    struct stat found {};
    const bool slash = number == ENOTDIR && path.size() > 1 && path.ends_with('/') &&
                       ::lstat(path.substr(0, path.size() - 1).c_str(), &found) == 0;
    return slash ? problem_of_slash(found.st_mode) : problem_of_errno(number);
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
