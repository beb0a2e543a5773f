// The time, for whoever waits: a program's own, or one that a test sets.
#pragma once

#include <cstdint>

namespace engine {

class Clock {
  public:
    Clock() = default;
    Clock(const Clock &) = delete;
    Clock &operator=(const Clock &) = delete;
    virtual ~Clock() = default;

    // Nanoseconds; it never goes back.
    virtual int64_t now() = 0;
    // So many nanoseconds, or until a signal arrives.
    virtual void sleep(int64_t nanoseconds) = 0;
};

// That of the machine.
Clock &machine_clock();

} // namespace engine
