// What the sweeps of this folder share: a transfer whose system calls are watched, refused or killed one after the
// other, and what is told of it.
#pragma once

#include "tests/faults/system_calls.h"
#include "tools/engine/transfer/transfer.h"
#include "tools/engine/walk/stack_room.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace sweep {

inline bool is_whole(const engine::Outcome &outcome) {
    return !outcome.warning && outcome.losses.empty() && !outcome.sourceStays;
}

// The reasons, for messages.
inline std::string words_of(const engine::Outcome &outcome) {
    std::string words;
    for (const auto &problem : {outcome.warning, outcome.problem}) {
        words += problem ? problem->reason + "; " : "";
    }
    for (const engine::Loss &loss : outcome.losses) {
        words += loss.detail + "; ";
    }
    return words;
}

// What came of the entries of a run.
struct Told {
    bool good = true; // all of it is done, with everything
    engine::Outcome last = {};
    std::string text = {}; // a line for each entry that is neither done nor was the same already
};

// Replaces whatever stands there.
class Watcher : public engine::TransferObserver {
  public:
    bool stopped() const override { return false; }
    void tree(const std::string &) override {}
    void entry(engine::EntryKind, const std::string &source, const engine::Outcome &outcome) override {
        told.last = outcome;
        told.good = told.good && outcome.status == engine::Status::done && is_whole(outcome);
        const bool done =
            outcome.status == engine::Status::done || (outcome.status == engine::Status::skipped && outcome.same);
        if (!done || !is_whole(outcome)) {
            told.text += source + ": " + words_of(outcome) + "\n";
        }
    }
    void arrived(const std::string &, int, int64_t) override {}
    void progress(int64_t, bool) override {}
    bool may_replace(const std::string &) override { return true; }
    void written_out(const std::string &, const std::optional<engine::Problem> &problem) override {
        told.good = told.good && !problem;
    }

    Told told = {};
};

// A transfer with nothing before it or after it.
inline Told carry(const engine::TransferOptions &options, const std::string &source, const std::string &destination) {
    Watcher watcher;
    engine::Transfer(options, watcher).run(source, destination);
    return watcher.told;
}

// A call after which everything is as it was: a kill before the next one that does something is the same.
inline bool only_looks(const faults::SystemCall &call) {
    constexpr int looks[] = {SYS_newfstatat, SYS_fstat,      SYS_statx,      SYS_statfs,    SYS_fstatfs,
                             SYS_faccessat,  SYS_faccessat2, SYS_read,       SYS_lseek,     SYS_close,
                             SYS_readlink,   SYS_readlinkat, SYS_getdents64, SYS_getxattr,  SYS_fgetxattr,
                             SYS_lgetxattr,  SYS_listxattr,  SYS_flistxattr, SYS_llistxattr};
    return std::ranges::find(looks, call.number) != std::end(looks);
}

// The base of fixtures of the kind `Test`: skips where nobody can make stores, or supervise.
template <typename Test>
class Sweep : public Test {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "only root makes stores";
        }
        if (const std::string why = faults::unavailable(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        (void)engine::has_stack_room(); // which looks where the stack ends the first time, and then knows
    }

    // What the body does in a process of its own, as the plan says. What it returns is the exit status.
    static faults::Outcome watched(const faults::Plan &plan, const std::function<int()> &body) {
        return faults::supervise(plan, [&](faults::Window &window) {
            window.open();
            const int status = body();
            window.close();
            ::_exit(status);
        });
    }

    // Kills a run before the call `at` of those that one made. Whether it came to that: a few calls depend on what the
    // process has kept, so that a run may end a little before the last one of them.
    static bool killed(size_t at, const std::vector<faults::SystemCall> &calls, const std::function<void()> &body) {
        const bool reached = watched(faults::planAt(faults::Plan::Action::kill, calls, at), [&] {
                                 body();
                                 return 0;
                             }).reached;
        EXPECT_TRUE(reached || at + 8 > calls.size()) << at << " of " << calls.size();
        return reached;
    }
};

} // namespace sweep
