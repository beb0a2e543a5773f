#include "tools/engine/transfer/retry_policy.h"

#include "tools/engine/transfer/pace.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace engine {

bool may_pass(const Problem &problem) {
    constexpr uint32_t locked = 0x0400, hostDown = 0x1100;
    constexpr int numbers[] = {EBUSY, EAGAIN, ETXTBSY, ESTALE, EHOSTDOWN, EHOSTUNREACH, ETIMEDOUT};
    return problem.code == locked || problem.code == hostDown ||
           std::ranges::find(numbers, problem.number) != std::end(numbers);
}

bool RetryPolicy::again(const std::string &source, const std::string &destination, const Problem &problem, int &tries) {
    constexpr int64_t millisecond = 1'000'000, first = 500, longest = 30'000;
    constexpr int mostDoublings = 6;
    if (tries >= m_retries || !may_pass(problem) || m_observer.stopped()) {
        return false;
    }
    const int64_t pause = std::min(first << std::min(tries, mostDoublings), longest);
    ++tries;
    m_observer.retry({source, destination, problem, tries, m_retries, pause});
    return wait_for(m_clock, pause * millisecond, m_observer);
}

} // namespace engine
