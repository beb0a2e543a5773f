#include "tools/vexofileop/terminal/signals.h"

#include <cerrno>
#include <csignal>
#include <poll.h>

namespace tool {
namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t stopSignal = 0;

extern "C" void remember_signal(int number) {
    stopSignal = number;
}

} // namespace

void watch_signals() {
    for (const int number : kStopSignals) {
        struct sigaction now {};
        if (::sigaction(number, nullptr, &now) == 0 && now.sa_handler == SIG_IGN) {
            continue;
        }
        struct sigaction watch {};
        watch.sa_handler = remember_signal;
        // A read or write under way goes on, since the copy polls the flag between blocks. The second signal of a kind
        // finds the default action, which ends a program that hangs.
        watch.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
        ::sigemptyset(&watch.sa_mask);
        ::sigaction(number, &watch, nullptr);
    }
    std::signal(SIGPIPE, SIG_IGN);
}

void ignore_stop_signals() {
    for (const int number : kStopSignals) {
        std::signal(number, SIG_IGN);
    }
}

int stop_signal() {
    return stopSignal;
}

bool wait_readable(int fd, int milliseconds) {
    // Blocked until ppoll waits, so that no signal falls between the look at the flag and the wait.
    sigset_t blocked, before;
    ::sigemptyset(&blocked);
    for (const int number : kStopSignals) {
        ::sigaddset(&blocked, number);
    }
    ::sigprocmask(SIG_BLOCK, &blocked, &before);
    pollfd waited{fd, POLLIN, 0};
    const timespec limit{milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
    bool readable = false;
    while (stopSignal == 0 && !readable) {
        const int result = ::ppoll(&waited, 1, milliseconds < 0 ? nullptr : &limit, &before);
        if (result == 0) {
            break;
        }
        readable = result > 0 || (result < 0 && errno != EINTR);
    }
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    // A signal that came with the answer has set the flag by now. Ctrl-C empties a terminal's input, which for a moment
    // looks as if there were some: whoever believed that would wait in read().
    return readable && stopSignal == 0;
}

} // namespace tool
