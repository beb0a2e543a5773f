// How long the rest of the work takes, where entries and bytes both take time: a tree of small files is slow by their
// number, a large file by its bytes. Pure functions of numbers: whoever has a clock gives the moments.
#pragma once

#include <cstdint>
#include <optional>

namespace tool {

class TimeLeft {
  public:
    // A total of 0 is not known.
    TimeLeft(int64_t totalBytes, int64_t totalFiles);

    // So much is done, all in all. Moments are seconds on a clock that never goes back.
    void add(double moment, int64_t bytes, int64_t files);
    // Seconds. None before anything is known.
    std::optional<double> seconds() const;

  private:
    // What all bytes, and all entries, would take: those that explain best what the time went for, the last of it most.
    struct Costs {
        double bytes, files;
    };
    Costs costs() const;

    double m_totalBytes, m_totalFiles;
    double m_moment = 0, m_bytes = 0, m_files = 0; // the last ones: seconds, and parts of the whole
    bool m_started = false;
    double m_bb = 0, m_bf = 0, m_ff = 0, m_bt = 0, m_ft = 0; // sums of products
};

} // namespace tool
