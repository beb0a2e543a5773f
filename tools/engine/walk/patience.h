// Waiting for somebody else, for so long and no longer: what the kernel offers to wait for a lock has no end, and who
// holds it may be anybody.
#pragma once

#include <chrono>

namespace engine {

constexpr std::chrono::milliseconds kLockPatience{10'000};

// How long this process waits for what somebody else has locked.
void set_lock_patience(std::chrono::milliseconds patience);
std::chrono::milliseconds lock_patience();

class Patience {
  public:
    explicit Patience(std::chrono::milliseconds longest = lock_patience()) : m_end(Clock::now() + longest) {}

    // Some milliseconds later, more each time. False, at once: it has been long enough. errno stays.
    bool wait();

  private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point m_end;
    std::chrono::milliseconds m_pause{1};
};

} // namespace engine
