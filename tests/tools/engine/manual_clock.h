// A clock that goes on when a test says so, or somebody sleeps by it.
#pragma once

#include "tools/engine/transfer/clock.h"

#include <algorithm>
#include <cstdint>

namespace kit {

constexpr int64_t kSecond = 1'000'000'000;

class ManualClock : public engine::Clock {
  public:
    int64_t now() override { return time; }
    void sleep(int64_t nanoseconds) override {
        longest = std::max(longest, nanoseconds);
        ++sleeps;
        time += nanoseconds;
    }
    int64_t time = 77 * kSecond, longest = 0, sleeps = 0;
};

} // namespace kit
