// Commands over several paths: counts, messages, and the end at a signal.
#include "tools/vexofileop/commands/path_work.h"

#include "tests/kit/child.h"
#include "tools/engine/report/failure.h"
#include "tools/vexofileop/terminal/signals.h"

#include <csignal>
#include <gtest/gtest.h>

namespace {

using tool::PathWork;

TEST(PathWork, GoesOnAfterAFailureAndCountsIt) {
    PathWork work;
    std::vector<std::string> seen;
    work.each({"/a", "/b//c/", "/d"}, [&](const std::string &path) {
        seen.push_back(path);
        if (path == "/a") {
            throw engine::Failure("not today");
        }
    });
    EXPECT_EQ((std::vector<std::string>{"/a", "/b/c", "/d"}), seen);
    EXPECT_EQ(1, work.finish());
}

TEST(PathWork, AllFailedIsTwo) {
    PathWork work;
    work.one("/a", [](const std::string &) { throw engine::Failure("not today"); });
    EXPECT_EQ(2, work.finish());
}

// In a child: that a signal came cannot be undone.
TEST(PathWork, SignalLetsThePathUnderWayEndAndLeavesTheOthers) {
    EXPECT_TRUE(kit::holdsInChild([] {
        tool::watch_signals();
        PathWork work;
        int seen = 0;
        work.each({"/a", "/b", "/c"}, [&](const std::string &) {
            if (++seen == 2) {
                std::raise(SIGTERM);
            }
        });
        EXPECT_EQ(2, seen);
        EXPECT_EQ(128 + SIGTERM, work.finish());
    }));
}

} // namespace
