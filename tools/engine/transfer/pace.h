// Holds a run to so many bytes a second.
#pragma once

#include "tools/engine/report/observer.h"
#include "tools/engine/transfer/clock.h"

#include <cstdint>

namespace engine {

// Waits for so long, in steps that are short enough for a stop to be noticed. False: it came.
bool wait_for(Clock &clock, int64_t nanoseconds, const Observer &observer);

class Pace {
  public:
    // 0: no limit, and no time is asked for. The clock outlives this.
    Pace(int64_t bytesPerSecond, Clock &clock) : m_rate(bytesPerSecond), m_clock(clock) {}

    bool limits() const { return m_rate > 0; }
    // So many more bytes have been written: returns when they were due. What was slow by itself waits for nothing, and
    // what was idle saves nothing up.
    void done(int64_t bytes, const Observer &observer);
    // How many bytes are written at a time, so that it goes on evenly: those of a tenth of a second.
    int64_t block() const;

  private:
    int64_t m_rate;
    Clock &m_clock;
    int64_t m_due = 0;  // when what has been written was due
    int64_t m_last = 0; // the end of the last wait; 0: nothing was written yet
};

} // namespace engine
