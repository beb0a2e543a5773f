#include "tools/engine/transfer/clock.h"

#include "tools/engine/walk/units.h"

#include <ctime>

namespace engine {
namespace {

class MachineClock : public Clock {
  public:
    int64_t now() override {
        timespec time{};
        (void)::clock_gettime(CLOCK_MONOTONIC, &time);
        return int64_t{time.tv_sec} * kSecond + time.tv_nsec;
    }
    void sleep(int64_t nanoseconds) override {
        const timespec time{static_cast<time_t>(nanoseconds / kSecond), static_cast<long>(nanoseconds % kSecond)};
        (void)::nanosleep(&time, nullptr);
    }
};

} // namespace

Clock &machine_clock() {
    static MachineClock clock;
    return clock;
}

} // namespace engine
