// What a progress line says: pure functions of numbers, so that they can be looked at without a terminal or a clock.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace tool {

struct ProgressView {
    int64_t done, total;               // bytes; a total of 0 is not known
    std::optional<double> rate;        // bytes per second; none before it can be told
    int width;                         // columns of the terminal
    int64_t files = 0, totalFiles = 0; // of several files; a total of 0 shows none
    std::optional<double> left = {};   // seconds; else those that the rest of the bytes takes at the rate
};

// One line of at most width - 1 columns (a full line would wrap on some terminals), ASCII only:
//     [=========>          ]  45%  1.2 of 2.6 GiB  120 MiB/s  0:12 left
// and, of several files, "  12/345 files" at the end. A narrow terminal loses the bar first, then the files, the time
// left, the rate and the size; "" when nothing fits.
std::string render_progress(const ProgressView &view);

// "1.2 GiB", "512 KiB", "17 B": at most three digits, rounded down.
std::string size_text(int64_t bytes);

// The rate over the last seconds, from what was done at which moment.
class RateMeter {
  public:
    // Moments are seconds on a clock that never goes back.
    void add(double moment, int64_t done);
    std::optional<double> rate() const;

  private:
    struct Sample {
        double moment;
        int64_t done;
    };
    std::deque<Sample> m_samples;
};

} // namespace tool
