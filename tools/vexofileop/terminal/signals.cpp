#include "tools/vexofileop/terminal/signals.h"

#include "tools/vexofileop/terminal/status_note.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace tool {
namespace {

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t stopSignal = 0;

volatile std::sig_atomic_t lineDrawn = 0;
std::atomic<int64_t> pausedNanoseconds = 0;
static_assert(std::atomic<int64_t>::is_always_lock_free);

// 0: nobody. Not to be allocated, since a signal handler reads it.
std::array<std::atomic<pid_t>, 256> helpers = {};
static_assert(std::atomic<pid_t>::is_always_lock_free);

bool exchange_helper(pid_t old, pid_t other) {
    return std::ranges::any_of(helpers, [=](std::atomic<pid_t> &helper) {
        pid_t expected = old;
        return helper.compare_exchange_strong(expected, other);
    });
}

void signal_helpers(int number) {
    for (const std::atomic<pid_t> &helper : helpers) {
        if (const pid_t process = helper; process > 0) {
            (void)::kill(process, number);
        }
    }
}

extern "C" void remember_signal(int number) {
    stopSignal = number;
}

void clear_line() {
    if (std::exchange(lineDrawn, 0) != 0) {
        constexpr char clear[] = "\r\x1b[K";
        (void)!::write(STDERR_FILENO, clear, sizeof clear - 1);
    }
}

extern "C" void tell_where(int) {
    const int number = errno;
    clear_line();
    tell_status();
    errno = number;
}

int64_t nanoseconds_now() {
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000L + now.tv_nsec;
}

// Stops as a program does that has no handler, and returns when it goes on.
extern "C" void pause_program(int number) {
    const int before = errno;
    clear_line();
    struct sigaction usual {
    }, ours{};
    usual.sa_handler = SIG_DFL;
    sigset_t this_one, blocked;
    ::sigemptyset(&this_one);
    ::sigaddset(&this_one, number);
    const int64_t stopped = nanoseconds_now();
    ::sigaction(number, &usual, &ours);
    signal_helpers(SIGSTOP);
    (void)::raise(number);
    ::sigprocmask(SIG_UNBLOCK, &this_one, &blocked); // here it stops
    ::sigprocmask(SIG_SETMASK, &blocked, nullptr);
    signal_helpers(SIGCONT);
    ::sigaction(number, &ours, nullptr);
    pausedNanoseconds += nanoseconds_now() - stopped;
    errno = before;
}

// A call under way goes on afterwards.
void watch(int number, void (*handler)(int)) {
    struct sigaction now {
    }, action{};
    if (::sigaction(number, nullptr, &now) == 0 && now.sa_handler != SIG_IGN) {
        action.sa_handler = handler;
        action.sa_flags = SA_RESTART;
        ::sigemptyset(&action.sa_mask);
        ::sigaction(number, &action, nullptr);
    }
}

} // namespace

void watch_pauses() {
    watch(SIGTSTP, pause_program);
}

void set_line_drawn(bool drawn) {
    lineDrawn = drawn ? 1 : 0;
}

bool is_line_drawn() {
    return lineDrawn != 0;
}

double paused_seconds() {
    return static_cast<double>(pausedNanoseconds) / 1e9;
}

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
    watch(SIGUSR1, tell_where);
}

void add_helper(pid_t process) {
    (void)exchange_helper(0, process);
    watch_pauses();
}

void remove_helper(pid_t process) {
    (void)exchange_helper(process, 0);
}

void become_helper() {
    for (std::atomic<pid_t> &helper : helpers) {
        helper = 0;
    }
    for (const int number : kStopSignals) {
        std::signal(number, SIG_IGN);
    }
    std::signal(SIGUSR1, SIG_IGN);
    struct sigaction now {};
    if (::sigaction(SIGTSTP, nullptr, &now) == 0 && now.sa_handler != SIG_IGN) {
        std::signal(SIGTSTP, SIG_DFL);
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
