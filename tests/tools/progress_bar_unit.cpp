// What the progress line says for given numbers.
#include "tools/vexofileop/terminal/progress_bar.h"

#include <gtest/gtest.h>
#include <limits>

namespace {

using namespace tool;

constexpr int64_t kMiB = 1 << 20;

TEST(ProgressLine, HasAllPartsOnAUsualTerminal) {
    EXPECT_EQ("[===============>                  ]  45%  1.1 of 2.6 GiB  121 MiB/s  0:12 left",
              render_progress({1216 * kMiB, 2662 * kMiB + 500 * 1024, 121.0 * kMiB, 80}));
}

TEST(ProgressLine, SeveralFilesAreCountedAtTheEnd) {
    EXPECT_EQ(" 50%  50 of 100 MiB  10 MiB/s  0:05 left  12/345 files",
              render_progress({50 * kMiB, 100 * kMiB, 10.0 * kMiB, 60, 12, 345}));
    EXPECT_EQ(" 50%  50 of 100 MiB  10 MiB/s  0:05 left",
              render_progress({50 * kMiB, 100 * kMiB, 10.0 * kMiB, 50, 12, 345}));
}

TEST(ProgressLine, NeverFillsTheLastColumn) {
    for (int width = 0; width <= 300; ++width) {
        for (const int64_t done : {int64_t{0}, 45 * kMiB, 100 * kMiB}) {
            const std::string line = render_progress({done, 100 * kMiB, 1.5 * kMiB, width});
            EXPECT_LE(static_cast<int>(line.size()), std::max(width - 1, 0)) << line;
        }
    }
}

TEST(ProgressLine, NarrowTerminalLosesTheLeastImportantPartFirst) {
    const auto line = [](int width) { return render_progress({50 * kMiB, 100 * kMiB, 10.0 * kMiB, width}); };
    EXPECT_EQ(" 50%  50 of 100 MiB  10 MiB/s  0:05 left", line(45));
    EXPECT_EQ(" 50%  50 of 100 MiB  10 MiB/s", line(35));
    EXPECT_EQ(" 50%  50 of 100 MiB", line(25));
    EXPECT_EQ(" 50%", line(10));
    EXPECT_EQ("", line(4));
}

TEST(ProgressLine, BeginsAndEndsExactly) {
    EXPECT_EQ("[>         ]   0%  0.0 of 100 MiB", render_progress({0, 100 * kMiB, std::nullopt, 34}));
    EXPECT_EQ("[==========] 100%  100 of 100 MiB", render_progress({100 * kMiB, 100 * kMiB, std::nullopt, 34}));
    // One byte short is not 100 %.
    EXPECT_EQ(" 99%", render_progress({100 * kMiB - 1, 100 * kMiB, std::nullopt, 6}));
}

TEST(ProgressLine, SourceThatGrowsStaysAtTheEnd) {
    EXPECT_EQ("[==========] 100%  150 of 100 MiB", render_progress({150 * kMiB, 100 * kMiB, std::nullopt, 34}));
}

TEST(ProgressLine, UnknownTotalShowsWhatIsDone) {
    EXPECT_EQ("5.0 MiB  1.0 MiB/s", render_progress({5 * kMiB, 0, 1.0 * kMiB, 80}));
}

TEST(ProgressLine, LongTimesAndHugeSizesHold) {
    const auto line = [](int64_t total, double rate) { return render_progress({0, total, rate, 200}); };
    EXPECT_NE(std::string::npos, line(3600 * kMiB, 1.0 * kMiB).find("1:00:00 left"));
    EXPECT_NE(std::string::npos, line(std::numeric_limits<int64_t>::max(), 1.0).find("99:00:00 left"));
    EXPECT_NE(std::string::npos, line(std::numeric_limits<int64_t>::max(), 1.0).find("0.0 of 8.0 EiB"));
    EXPECT_EQ(std::string::npos, line(100, 0.0).find("left")); // stalled: nobody knows
}

TEST(SizeText, HasAtMostThreeDigits) {
    EXPECT_EQ("0 B", size_text(0));
    EXPECT_EQ("999 B", size_text(999));
    EXPECT_EQ("0.9 KiB", size_text(1000));
    EXPECT_EQ("1.0 KiB", size_text(1024));
    EXPECT_EQ("9.9 KiB", size_text(10 * 1024 - 1));
    EXPECT_EQ("10 KiB", size_text(10 * 1024));
    EXPECT_EQ("8.0 EiB", size_text(std::numeric_limits<int64_t>::max()));
}

TEST(Rate, IsThatOfTheLastSeconds) {
    RateMeter meter;
    EXPECT_FALSE(meter.rate());
    meter.add(0, 0);
    EXPECT_FALSE(meter.rate());
    meter.add(1, 1000);
    EXPECT_DOUBLE_EQ(1000, *meter.rate());
    for (int second = 2; second <= 20; ++second) {
        meter.add(second, 1000 + (second - 1) * 10);
    }
    EXPECT_DOUBLE_EQ(10, *meter.rate()); // the fast start is forgotten
}

TEST(Rate, NeedsTimeToPass) {
    RateMeter meter;
    meter.add(1, 0);
    meter.add(1, 500);
    EXPECT_FALSE(meter.rate());
}

} // namespace
