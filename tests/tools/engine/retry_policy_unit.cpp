// --retry: what may pass is tried again, and nothing that is half done.
#include "tests/ea/stream_bytes.h"
#include "tests/faults/system_calls.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/tools/engine/manual_clock.h"
#include "tools/engine/transfer/retry_policy.h"
#include "tools/engine/transfer/transfer.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace engine;

using kit::kSecond;
using kit::ManualClock;

class RetryWatcher : public TransferObserver {
  public:
    bool stopped() const override { return false; }
    void tree(const std::string &) override {}
    void entry(EntryKind, const std::string &, const Outcome &outcome) override { last = outcome; }
    void arrived(const std::string &, int, int64_t) override {}
    void progress(int64_t, bool) override {}
    bool may_replace(const std::string &) override { return true; }
    void retry(const Retry &retry) override { pauses.push_back(retry.pause); }

    Outcome last;
    std::vector<int64_t> pauses;
};

TEST(RetryPolicyOf, WhatMayPassAlone) {
    for (const int number : {EBUSY, EAGAIN, ETXTBSY, ESTALE, EHOSTDOWN, EHOSTUNREACH, ETIMEDOUT}) {
        EXPECT_TRUE(may_pass(problem_of_errno(number))) << number;
    }
    for (const int number : {EIO, ENOSPC, EACCES, ENOENT, EROFS, EDQUOT, ENXIO}) {
        EXPECT_FALSE(may_pass(problem_of_errno(number))) << number;
    }
    EXPECT_TRUE(may_pass(problem_of(0x0400)));
    EXPECT_FALSE(may_pass(Problem{"some reason"}));
}

TEST(RetryPolicyOf, PausesThatGrow) {
    ManualClock clock;
    RetryWatcher watcher;
    RetryPolicy patience(9, clock, watcher);
    int tries = 0;
    while (patience.again("from", "to", problem_of_errno(EBUSY), tries)) {
    }
    EXPECT_EQ((std::vector<int64_t>{500, 1000, 2000, 4000, 8000, 16000, 30000, 30000, 30000}), watcher.pauses);
    EXPECT_EQ(77 * kSecond + 121'500'000'000, clock.time);
    EXPECT_FALSE(patience.again("from", "to", problem_of_errno(EIO), tries = 0));
    EXPECT_FALSE(RetryPolicy(0, clock, watcher).again("from", "to", problem_of_errno(EBUSY), tries = 0));
}

class Retried : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        if (const std::string why = faults::unavailable(); !why.empty()) {
            GTEST_SKIP() << why;
        }
    }
    struct Scene {
        Scene() {
            EXPECT_EQ(0, ::mkdir((scratch / "to").c_str(), 0755));
            kit::writeFile(scratch / "file", "new");
            kit::writeFile(scratch / "to/file", "old");
        }
        kit::ScratchDirectory scratch;
    };
    static faults::Outcome carry(const Scene &scene, int retries, const faults::Plan &plan) {
        return faults::supervise(plan, [&](faults::Window &window) {
            ManualClock clock;
            RetryWatcher watcher;
            Transfer transfer({.conflict = Conflict::replace, .retries = retries, .clock = &clock}, watcher);
            window.open();
            transfer.run(scene.scratch / "file", scene.scratch / "to/file");
            window.close();
            ::_exit(watcher.last.status == Status::done ? 0 : 3);
        });
    }
};

TEST_F(Retried, EachCallThatIsRefusedOnceIsNoFailureOrLeavesTheOldFile) {
    KIT_NOT_SANITIZED();
    const Scene first;
    const auto calls = carry(first, 2, {}).calls;
    ASSERT_LT(10u, calls.size());
    int failedBefore = 0;
    for (size_t at = 0; at < calls.size(); ++at) {
        const faults::Plan plan = faults::planAt(faults::Plan::Action::fail, calls, at, EBUSY);
        const Scene without, with;
        const faults::Outcome impatient = carry(without, 0, plan), patient = carry(with, 2, plan);
        if (!impatient.reached || !patient.reached) {
            break;
        }
        for (const Scene *scene : {&without, &with}) {
            const std::string content = kit::readFile(scene->scratch / "to/file");
            EXPECT_TRUE(content == "old" || content == "new") << at << content;
            EXPECT_EQ("new", kit::readFile(scene->scratch / "file"));
        }
        failedBefore += impatient.status != 0 ? 1 : 0;
        EXPECT_TRUE(patient.status == 0 || impatient.status != 0) << at << faults::nameOf(calls[at]);
        if (patient.status == 0) {
            EXPECT_EQ("new", kit::readFile(with.scratch / "to/file")) << at;
        }
    }
    EXPECT_LT(3, failedBefore);
}

// Somebody changes what is kept for the file, and is done while the copy waits.
TEST_F(Retried, LockedStreamIsTriedAgain) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root makes stores";
    }
    struct Releasing : RetryWatcher {
        void retry(const Retry &told) override {
            RetryWatcher::retry(told);
            if (pauses.size() == 2) {
                ::close(held);
            }
        }
        int held = -1;
    };
    for (const int retries : {0, 1, 4}) {
        const Scene scene;
        const std::string stream = scene.scratch / "@eaDir/file@VexoEAStream",
                          bytes = stream::bytes({{"comment", "new"}});
        ASSERT_EQ(0, ::mkdir((scene.scratch / "@eaDir").c_str(), 0755));
        kit::writeFile(stream, bytes);
        ManualClock clock;
        Releasing watcher;
        watcher.held = ::open(stream.c_str(), O_RDWR | O_CLOEXEC);
        struct flock lock {};
        lock.l_type = F_WRLCK;
        ASSERT_EQ(0, ::fcntl(watcher.held, F_OFD_SETLK, &lock));
        Transfer transfer({.conflict = Conflict::replace, .retries = retries, .clock = &clock}, watcher);
        transfer.run(scene.scratch / "file", scene.scratch / "to/file");
        EXPECT_EQ(static_cast<size_t>(std::min(retries, 2)), watcher.pauses.size());
        const std::string copied = scene.scratch / "to/@eaDir/file@VexoEAStream";
        if (retries == 4) {
            EXPECT_EQ(Status::done, watcher.last.status);
            EXPECT_TRUE(watcher.last.losses.empty());
            EXPECT_EQ("new", kit::readFile(scene.scratch / "to/file"));
            EXPECT_EQ(bytes, kit::readFile(copied));
        } else { // nobody can tell what it is
            EXPECT_TRUE(watcher.last.status == Status::failed || !watcher.last.losses.empty()) << retries;
            ::close(watcher.held);
        }
        EXPECT_EQ(bytes, kit::readFile(stream));
    }
}

TEST_F(Retried, RefusedRenamingIsTriedAgain) {
    KIT_NOT_SANITIZED();
    const Scene first;
    const auto calls = carry(first, 1, {}).calls;
    const auto renaming = std::ranges::find_if(
        calls, [](const auto &call) { return faults::nameOf(call).find("rename") != std::string::npos; });
    ASSERT_NE(calls.end(), renaming);
    // The first one of its kind, whatever comes before it: how many calls a run makes is no matter here.
    const auto refusing = [&](int error) {
        return faults::Plan{
            .action = faults::Plan::Action::fail, .at = 0, .error = error, .number = renaming->number, .alike = true};
    };
    for (const int error : {EBUSY, ESTALE, ETIMEDOUT}) {
        const faults::Plan plan = refusing(error);
        const Scene without, with;
        const faults::Outcome refused = carry(without, 0, plan);
        EXPECT_TRUE(refused.reached);
        EXPECT_NE(0, refused.status) << faults::nameOf(*renaming) << " " << renaming->path;
        EXPECT_EQ("old", kit::readFile(without.scratch / "to/file"));
        EXPECT_EQ(0, carry(with, 1, plan).status);
        EXPECT_EQ("new", kit::readFile(with.scratch / "to/file"));
        EXPECT_EQ((std::vector<std::string>{"file"}), kit::namesIn(with.scratch / "to"));
    }
    const Scene lost;
    EXPECT_NE(0, carry(lost, 5, refusing(EIO)).status); // which does not pass
    EXPECT_EQ("old", kit::readFile(lost.scratch / "to/file"));
}

} // namespace
