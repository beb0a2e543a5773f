// An operation in a child process whose system calls pass a supervisor: it counts them, lets one of them fail, or kills
// the process before one. This reaches what the C library, the platform's libraries and walks make themselves, which
// functions defined by the test program do not see. A close is never made to fail here, since the call would then not
// close: kit::Faults does both.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FAULTS_SANITIZED 1
#endif
#endif

namespace faults {

struct SystemCall {
    int number = -1;
    uint64_t arguments[6] = {};
    std::string path = {}; // the first path it names, for messages
};
std::string nameOf(const SystemCall &call);
// The errors that the file system and the kernel can answer this call with, without anything being wrong with the call.
std::vector<int> plausibleErrors(const SystemCall &call);

struct Plan {
    enum class Action { watch, fail, kill, meet } action = Action::watch;
    size_t at = 0; // the call, counted from 0 while the window is open
    int error = 0;
    int number = -1; // of the call that is to be there; where another one is, nothing is done to it
    // `at` counts the calls of that number alone, whatever else a run makes between them. No other one asks the
    // supervisor then, which is most of what watching a run costs.
    bool alike = false;
    // What somebody else does just before the call, which then goes on.
    std::function<void()> meeting = {};
};

// The plan for the call `at` of those that a watched run made: found again as the so-manieth one of its kind.
Plan planAt(Plan::Action action, const std::vector<SystemCall> &calls, size_t at, int error = 0);
// For a child of which only the end is waited for: none of its calls asks.
inline Plan unwatched() {
    return {.alike = true};
}

// What the child's body opens while the operation under test runs: calls outside are neither counted nor touched.
class Window {
  public:
    explicit Window(volatile int *flag) : m_flag(flag) {}
    void open() { *m_flag = 1; }
    void close() { *m_flag = 0; }

  private:
    volatile int *m_flag;
};

struct Outcome {
    std::vector<SystemCall> calls; // those in the window that asked; their paths where they were only watched
    bool reached = false;          // the plan's call was made
    bool hung = false;             // nothing happened for a minute
    int status = 0;                // as waitpid() gives it
};

// Empty where the kernel allows a supervisor; else why not.
std::string unavailable();
Outcome supervise(const Plan &plan, const std::function<void(Window &)> &body);

} // namespace faults
