// What failed for something that may pass is tried again, after a pause that grows.
#pragma once

#include "tools/engine/report/problem.h"
#include "tools/engine/transfer/clock.h"
#include "tools/engine/transfer/transfer_observer.h"

#include <string>

namespace engine {

// Whether it may be over soon: somebody else holds it (EBUSY, EAGAIN, ETXTBSY, a locked stream), or the other end of a
// connection does not answer (ESTALE, EHOSTDOWN, EHOSTUNREACH, ETIMEDOUT).
bool may_pass(const Problem &problem);

class RetryPolicy {
  public:
    // Both outlive this. 0 retries: no time is asked for.
    RetryPolicy(int retries, Clock &clock, TransferObserver &observer)
        : m_retries(retries), m_clock(clock), m_observer(observer) {}

    // After a try that failed: whether there is to be one more, once this has told it and waited. `tries`: those that
    // failed before, counted here.
    bool again(const std::string &source, const std::string &destination, const Problem &problem, int &tries);
    // Whether a try after this many has another one behind it.
    bool has_more(int tries) const { return tries < m_retries; }

  private:
    int m_retries;
    Clock &m_clock;
    TransferObserver &m_observer;
};

} // namespace engine
