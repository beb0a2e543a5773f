#include "tools/engine/report/failure.h"

#include "platform/core.h"
#include "tools/engine/report/codes.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/problem.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/stat.h>

namespace engine {

void throw_last_error(const std::string &what) {
    const int number = errno;
    const uint32_t code = VLIBCErrGet();
    throw Failure(code != 0 ? fmt::format("{}: {} ({})", what, reason_of(code), code_text(code))
                            : fmt::format("{}: {}", what, std::strerror(number)),
                  code, number);
}

void check(int result, const std::string &what) {
    if (result < 0) {
        throw_last_error(what);
    }
}

void throw_errno(const std::string &what) {
    const int number = errno;
    throw Failure(fmt::format("{}: {}", what, std::strerror(number)), 0, number);
}

void throw_errno() {
    const int number = errno;
    throw Failure(std::strerror(number), 0, number);
}

void throw_errno_in(int directory, const std::string &what) {
    const int number = errno;
    if (number == ENOSPC && lacks_inodes(directory)) {
        throw Failure(fmt::format("{}: {}", what, problem_of_no_inode().reason), kNoSpace, number);
    }
    errno = number;
    throw_errno(what);
}

void forget_last_error() {
    VLIBCErrSetEx(0, "", 0);
}

void check_there(const std::string &path) {
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0) {
        throw_errno();
    }
    forget_last_error();
}

} // namespace engine
