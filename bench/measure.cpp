// Runs a command and tells what it cost, as one line: wall seconds, user and system seconds, peak memory in KiB.
//
//     measure COMMAND [ARGUMENT…]
//
// A program of its own, linked statically, because the peak memory of a child counts from its parent's: a child of an
// interpreter would never seem to need less than the interpreter.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

extern char **environ;

namespace {

double now() {
    timespec time = {};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double seconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: measure COMMAND [ARGUMENT...]\n");
        return 2;
    }
    const double start = now();
    pid_t child = 0;
    if (const int error = ::posix_spawnp(&child, argv[1], nullptr, nullptr, argv + 1, environ); error != 0) {
        std::fprintf(stderr, "measure: %s: %s\n", argv[1], std::strerror(error));
        return 127;
    }
    int status = 0;
    rusage usage = {};
    while (::wait4(child, &status, 0, &usage) < 0) {
        if (errno != EINTR) {
            std::perror("measure: wait4");
            return 127;
        }
    }
    std::printf("%.6f %.6f %.6f %ld\n", now() - start, seconds(usage.ru_utime), seconds(usage.ru_stime),
                usage.ru_maxrss);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
