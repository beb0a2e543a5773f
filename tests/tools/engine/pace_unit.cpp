// The limit of bytes a second, by a clock of the test's own.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/tools/engine/manual_clock.h"
#include "tools/engine/transfer/pace.h"
#include "tools/engine/transfer/transfer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vector>

namespace {

using namespace engine;

using kit::kSecond;
using kit::ManualClock;

class PaceWatcher : public TransferObserver {
  public:
    bool stopped() const override { return stopAfter >= 0 && asked++ >= stopAfter; }
    void tree(const std::string &) override {}
    void entry(EntryKind, const std::string &, const Outcome &outcome) override { last = outcome; }
    void arrived(const std::string &, int, int64_t) override {}
    void progress(int64_t bytes, bool) override { largest = std::max(largest, bytes); }
    bool may_replace(const std::string &) override { return true; }

    mutable int asked = 0;
    int stopAfter = -1;
    int64_t largest = 0;
    Outcome last;
};

TEST(PaceOf, BytesTakeTheTimeThatTheRateSays) {
    ManualClock clock;
    const PaceWatcher watcher;
    Pace pace(1000, clock);
    pace.done(500, watcher);
    EXPECT_EQ(77 * kSecond + kSecond / 2, clock.time);
    pace.done(2500, watcher);
    EXPECT_EQ(80 * kSecond, clock.time);
    EXPECT_LE(clock.longest, kSecond / 10); // a stop is noticed soon
}

TEST(PaceOf, WhatWasSlowByItselfWaitsForNothingAndSavesNothingUp) {
    ManualClock clock;
    const PaceWatcher watcher;
    Pace pace(1000, clock);
    pace.done(1000, watcher);
    EXPECT_EQ(78 * kSecond, clock.time);
    clock.time += 10 * kSecond; // as the writing of the next block takes
    pace.done(1000, watcher);
    EXPECT_EQ(88 * kSecond, clock.time);
    pace.done(1000, watcher); // at once
    EXPECT_EQ(89 * kSecond, clock.time);
    clock.time += kSecond / 4; // part of its time
    pace.done(1000, watcher);
    EXPECT_EQ(90 * kSecond, clock.time);
}

TEST(PaceOf, StopEndsTheWait) {
    ManualClock clock;
    PaceWatcher watcher;
    watcher.stopAfter = 3;
    Pace pace(10, clock);
    pace.done(1000, watcher);
    EXPECT_LT(clock.time, 78 * kSecond);
}

TEST(PaceOf, NoLimitAsksForNoTime) {
    ManualClock clock;
    const PaceWatcher watcher;
    Pace pace(0, clock);
    pace.done(int64_t{1} << 60, watcher);
    EXPECT_EQ(0, clock.sleeps);
    EXPECT_FALSE(pace.limits());
    EXPECT_EQ(100'000, Pace(1'000'000, clock).block());
    EXPECT_EQ(4096, Pace(1, clock).block());
    EXPECT_EQ(8 << 20, Pace(int64_t{1} << 40, clock).block());
}

class PacedTransfer : public kit::Behaviour {};

TEST_F(PacedTransfer, WholeRunIsHeldToTheRateInSmallSteps) {
    ASSERT_EQ(0, ::mkdir((scratch / "tree").c_str(), 0755));
    kit::writeFile(scratch / "tree/one", kit::pattern(3'000'000));
    ASSERT_EQ(0, ::mkdir((scratch / "tree/in").c_str(), 0755)); // directories may go as a whole elsewhere
    kit::writeFile(scratch / "tree/in/two", kit::pattern(1'000'000));
    ManualClock clock;
    PaceWatcher watcher;
    Transfer transfer({.links = true, .trees = true, .countsAlone = true, .bytesPerSecond = 1'000'000, .clock = &clock},
                      watcher);
    transfer.run(scratch / "tree", scratch / "copy");
    EXPECT_EQ(kit::pattern(3'000'000), kit::readFile(scratch / "copy/one"));
    EXPECT_NEAR(4.0, static_cast<double>(clock.time - 77 * kSecond) / kSecond, 0.01);
    EXPECT_LE(watcher.largest, 100'000);
    EXPECT_LE(clock.longest, kSecond / 10);
}

TEST_F(PacedTransfer, StopLeavesNothingHalf) {
    kit::writeFile(scratch / "file", kit::pattern(3'000'000));
    ManualClock clock;
    PaceWatcher watcher;
    watcher.stopAfter = 20;
    Transfer({.bytesPerSecond = 1'000'000, .clock = &clock}, watcher).run(scratch / "file", scratch / "copy");
    EXPECT_EQ(Status::cancelled, watcher.last.status);
    EXPECT_FALSE(kit::exists(scratch / "copy"));
    EXPECT_LT(clock.time, 80 * kSecond);
}

} // namespace
