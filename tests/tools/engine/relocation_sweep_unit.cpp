// A relocation that is killed before each of its system calls, or has each of them fail once, and is run again: nothing
// is lost at any moment, and the second run finishes it. A sample of the points; with VEXO_FULL in the environment all.
#include "tests/faults/system_calls.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/volumes.h"
#include "tests/tools/engine/relocation_scene.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <gtest/gtest.h>
#include <iostream>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <utility>
#include <vector>

namespace {

using engine::RelocationEnd;
using faults::Plan;
using relocation::Record;
using relocation::Scene;

constexpr size_t kSample = 40;
constexpr int kThrown = -2;

class RelocationSweep : public testing::TestWithParam<const char *> {
  protected:
    void SetUp() override {
        if (const std::string reason = faults::unavailable(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        try {
            m_source.emplace(kit::Volume::tmpfs(8 << 20));
            m_destination.emplace(kit::Volume::loop(GetParam(), uint64_t{320} << 20));
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
        m_end =
            static_cast<int *>(::mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        ASSERT_NE(MAP_FAILED, static_cast<void *>(m_end));
    }

    Scene scene() const { return {m_source->path(), m_destination->path()}; }
    faults::Outcome supervised(const Scene &scene, const Plan &plan) {
        *m_end = -1;
        return faults::supervise(plan, [&](faults::Window &window) {
            try { // what is thrown here would go on in the test
                Record record;
                window.open();
                const RelocationEnd end = relocation::run(scene.from(), scene.to(), record).end;
                window.close();
                *m_end = static_cast<int>(end);
            } catch (const std::exception &) {
                window.close();
                *m_end = kThrown;
            }
        });
    }
    // Every so many points, beginning with another one for each kind of sweep.
    static size_t step(size_t points) {
        return std::getenv("VEXO_FULL") != nullptr ? 1 : std::max<size_t>(1, points / kSample);
    }
    void expectFinishedAgain(const Scene &scene, const std::string &point) {
        Record record;
        const engine::RelocationResult result = relocation::run(scene.from(), scene.to(), record);
        // It was done but for the private place.
        const bool wasDone =
            !kit::exists(scene.from()) && result.problem.reason.find("No such file") != std::string::npos;
        EXPECT_TRUE(wasDone || result.end == RelocationEnd::done)
            << point << ": again: " << static_cast<int>(result.end) << " " << result.problem.reason << "\n"
            << relocation::text(record);
        EXPECT_EQ("", scene.unfinished()) << point << ", again\n" << relocation::text(record);
    }

    static bool isExchange(const faults::SystemCall &call) {
        return call.number == SYS_renameat2 && call.arguments[4] == RENAME_EXCHANGE;
    }
    // A scene after a run in which that happened to the exchange of the two names. Not every run makes as many calls
    // before it.
    Scene atTheExchange(Plan::Action action) {
        for (;;) {
            const std::vector<faults::SystemCall> calls = supervised(scene(), {}).calls;
            const auto exchange = std::ranges::find_if(calls, isExchange);
            if (exchange == calls.end()) {
                throw std::runtime_error("no names are exchanged");
            }
            const auto at = static_cast<size_t>(exchange - calls.begin());
            Scene now = scene();
            const Plan plan = faults::planAt(action, calls, at, EINVAL);
            const faults::Outcome outcome = supervised(now, plan);
            // A call before which the process was killed may still be made.
            const bool kept = action == Plan::Action::fail || kit::exists(now.to() + "/in/old");
            if (outcome.reached && kept && isExchange(outcome.calls[plan.at])) {
                return now;
            }
        }
    }

    std::optional<kit::Volume> m_source, m_destination;
    int *m_end = nullptr;
};

TEST_P(RelocationSweep, KilledAnywhereNothingIsLostAndTheSecondRunFinishes) {
    const std::vector<faults::SystemCall> calls = supervised(scene(), {}).calls;
    ASSERT_GT(calls.size(), 100u);
    size_t runs = 0;
    for (size_t at = 0; at < calls.size(); at += step(calls.size())) {
        const Scene now = scene();
        (void)supervised(now, faults::planAt(Plan::Action::kill, calls, at));
        const std::string point =
            "killed before call " + std::to_string(at) + " " + faults::nameOf(calls[at]) + " " + calls[at].path;
        ++runs;
        EXPECT_EQ("", now.lost()) << point;
        expectFinishedAgain(now, point);
    }
    std::cout << runs << " of " << calls.size() << " points\n";
}

TEST_P(RelocationSweep, WhicheverCallFailsNothingIsLostAndTheSecondRunFinishes) {
    const std::vector<faults::SystemCall> calls = supervised(scene(), {}).calls;
    std::vector<std::pair<size_t, int>> plans;
    for (size_t at = 0; at < calls.size(); ++at) {
        for (const int error : faults::plausibleErrors(calls[at])) {
            plans.emplace_back(at, error);
        }
    }
    ASSERT_GT(plans.size(), 100u);
    size_t runs = 0;
    for (size_t index = 3; index < plans.size(); index += step(plans.size())) {
        const Scene now = scene();
        const auto [at, error] = plans[index];
        const faults::Outcome outcome = supervised(now, faults::planAt(Plan::Action::fail, calls, at, error));
        const std::string point = faults::nameOf(calls[at]) + " " + calls[at].path + " (call " + std::to_string(at) +
                                  "): " + std::strerror(error);
        ++runs;
        EXPECT_EQ("", now.lost()) << point;
        EXPECT_TRUE(WIFEXITED(outcome.status)) << point;
        EXPECT_NE(kThrown, *m_end) << point;
        if (*m_end == static_cast<int>(RelocationEnd::done)) {
            EXPECT_EQ("", now.unfinished()) << point;
            EXPECT_EQ("", now.leftBehind()) << point;
        } else {
            expectFinishedAgain(now, point);
        }
    }
    std::cout << runs << " of " << plans.size() << " points\n";
}

// Whatever is said once not to be there, and is: nothing is left of the source under success. All looks at the
// destination itself, where the volume may say so of the copy that was just put in place.
TEST_P(RelocationSweep, WhatIsSaidOnceNotToBeThereIsNotLeftBehind) {
    const std::vector<faults::SystemCall> calls = supervised(scene(), {}).calls;
    std::vector<size_t> rest, points;
    for (size_t at = 0; at < calls.size(); ++at) {
        if (std::ranges::count(faults::plausibleErrors(calls[at]), ENOENT) > 0) {
            (calls[at].path == "to" ? points : rest).push_back(at);
        }
    }
    ASSERT_GT(points.size(), 3u);
    ASSERT_GT(rest.size(), 100u);
    for (size_t index = 5; index < rest.size(); index += step(rest.size())) {
        points.push_back(rest[index]);
    }
    size_t done = 0;
    for (const size_t at : points) {
        const Scene now = scene();
        (void)supervised(now, faults::planAt(Plan::Action::fail, calls, at, ENOENT));
        const std::string point =
            faults::nameOf(calls[at]) + " " + calls[at].path + " (call " + std::to_string(at) + ")";
        EXPECT_EQ("", now.lost()) << point;
        if (*m_end == static_cast<int>(RelocationEnd::done)) {
            ++done;
            EXPECT_EQ("", now.unfinished()) << point;
        } else {
            expectFinishedAgain(now, point);
        }
    }
    std::cout << done << " done of " << points.size() << " points\n";
}

// A look that finds nothing where something is: what stands there under a private name goes all the same, with what it
// holds, or the next run has it go.
TEST_P(RelocationSweep, ALookThatFindsNothingLeavesNoPrivateNameBehind) {
    Record record;
    const Scene first = scene(); // what a process learns once the others know from this one, and make the same calls
    ASSERT_EQ(RelocationEnd::done, relocation::run(first.from(), first.to(), record).end);
    size_t looks = 0, done = 0;
    std::vector<std::pair<size_t, faults::SystemCall>> points, stores;
    for (const faults::SystemCall &call : supervised(scene(), {}).calls) {
        const size_t number = looks;
        looks += call.number == SYS_newfstatat ? 1 : 0;
        if (number != looks && call.path.starts_with(".vexofileop-")) {
            points.emplace_back(number, call);
        } else if (number != looks && call.path == "@eaDir") {
            stores.emplace_back(number, call);
        }
    }
    ASSERT_FALSE(stores.empty());
    points.push_back(stores.back()); // that of the private place, at the end
    for (const auto &[number, call] : points) {
        const Scene now = scene();
        const faults::Outcome outcome = supervised(now, {Plan::Action::fail, number, ENOENT, SYS_newfstatat, true});
        const std::string point = call.path + " (look " + std::to_string(number) + ")";
        EXPECT_TRUE(outcome.reached) << point;
        EXPECT_EQ("", now.lost()) << point;
        if (*m_end == static_cast<int>(RelocationEnd::done)) {
            EXPECT_EQ("", now.leftBehind()) << point;
            ++done;
        } else {
            expectFinishedAgain(now, point);
        }
    }
    EXPECT_LT(3u, done);
}

// Not every volume exchanges two names: there the old one is renamed first, and a stop may fall between the two.
TEST_P(RelocationSweep, WithoutAnExchangeOfNamesTheOldOneIsRenamedFirst) {
    const Scene whole = atTheExchange(Plan::Action::fail);
    EXPECT_EQ(static_cast<int>(RelocationEnd::done), *m_end);
    EXPECT_EQ("", whole.unfinished());
    for (int renamed = 0; renamed <= 2; ++renamed) {
        const Scene now = atTheExchange(Plan::Action::kill);
        const std::string place = now.privatePlace();
        ASSERT_NE("", place);
        ASSERT_TRUE(renamed < 1 || ::rename(now.to().c_str(), (place + "/old").c_str()) == 0);
        ASSERT_TRUE(renamed < 2 || ::rename((place + "/copy").c_str(), now.to().c_str()) == 0);
        EXPECT_EQ("", now.lost());
        expectFinishedAgain(now, std::to_string(renamed) + " renamed");
    }
    // Between the two somebody else has taken the name: nobody's directory is given up for it.
    const Scene taken = atTheExchange(Plan::Action::kill);
    ASSERT_EQ(0, ::rename(taken.to().c_str(), (taken.privatePlace() + "/old").c_str()));
    ASSERT_EQ(0, ::mkdir(taken.to().c_str(), 0755));
    kit::writeFile(taken.to() + "/theirs", "x");
    Record record;
    const engine::RelocationResult refused = relocation::run(taken.from(), taken.to(), record);
    EXPECT_EQ(RelocationEnd::unfinished, refused.end);
    EXPECT_NE(std::string::npos, refused.problem.reason.find("is not what it was")) << refused.problem.reason;
    EXPECT_EQ("x", kit::readFile(taken.to() + "/theirs"));
    EXPECT_EQ("", taken.lost());
}

INSTANTIATE_TEST_SUITE_P(To, RelocationSweep, testing::Values("ext4", "xfs"),
                         [](const testing::TestParamInfo<const char *> &kind) { return kind.param; });

} // namespace
