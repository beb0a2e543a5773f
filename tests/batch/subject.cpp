// What tests/batch/batch gives to tests/kit/batch: tests that end in every way.
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

TEST(Subject, Passes) {}

TEST(Subject, Skips) {
    GTEST_SKIP() << "for a reason";
}

TEST(Subject, Fails) {
    EXPECT_EQ(1, 2);
}

TEST(Subject, EndsTheProgram) {
    ::_exit(0); // with success, and yet not everything ran
}

TEST(Subject, PassesBehindIt) {}

TEST(Subject, DiesOfASignal) {
    ::kill(::getpid(), SIGKILL);
}

TEST(Subject, PassesAtTheEnd) {}

TEST(AtTheEnd, Passes) {}

// As a leak does, for the sanitizer looks when the program ends.
TEST(AtTheEnd, FailsWithTheProcess) {
    EXPECT_EQ(0, ::atexit([] { ::_exit(23); })); // NOLINT(concurrency-mt-unsafe): one thread
}

} // namespace
