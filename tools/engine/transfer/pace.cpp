#include "tools/engine/transfer/pace.h"

#include "tools/engine/walk/units.h"

#include <algorithm>

namespace engine {
namespace {

constexpr int64_t kStep = kSecond / 10;

} // namespace

bool wait_for(Clock &clock, int64_t nanoseconds, const Observer &observer) {
    const int64_t end = clock.now() + nanoseconds;
    for (int64_t left = nanoseconds; left > 0; left = end - clock.now()) {
        if (observer.stopped()) {
            return false;
        }
        clock.sleep(std::min(left, kStep));
    }
    return !observer.stopped();
}

void Pace::done(int64_t bytes, const Observer &observer) {
    if (!limits()) {
        return;
    }
    const int64_t now = m_clock.now();
    const double cost = static_cast<double>(bytes) / static_cast<double>(m_rate) * static_cast<double>(kSecond);
    m_due = std::max(m_due, m_last == 0 ? now : m_last) + static_cast<int64_t>(cost);
    (void)wait_for(m_clock, m_due - now, observer);
    m_last = m_clock.now();
}

int64_t Pace::block() const {
    constexpr int64_t least = 4096, most = int64_t{8} << 20;
    return std::clamp(m_rate / 10, least, most);
}

} // namespace engine
