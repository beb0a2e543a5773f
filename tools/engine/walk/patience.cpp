#include "tools/engine/walk/patience.h"

#include <algorithm>
#include <cerrno>
#include <thread>

namespace engine {
namespace {

std::chrono::milliseconds longest = kLockPatience;

} // namespace

void set_lock_patience(std::chrono::milliseconds patience) {
    longest = patience;
}

std::chrono::milliseconds lock_patience() {
    return longest;
}

bool Patience::wait() {
    constexpr std::chrono::milliseconds longestPause{50};
    if (Clock::now() >= m_end) {
        return false;
    }
    const int number = errno;
    std::this_thread::sleep_for(m_pause);
    m_pause = std::min(2 * m_pause, longestPause);
    errno = number;
    return true;
}

} // namespace engine
