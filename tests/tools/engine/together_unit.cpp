// Two commands that bring something to one name at the same time, the second at each system call of the first: the end
// is one of both whole, the file and what is kept beside it.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/tools/engine/sweep.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/store.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/patience.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

using namespace engine;
using namespace std::chrono_literals;

Outcome carry(Operation operation, const std::string &source, const std::string &destination, bool backup = false) {
    TransferOptions options{.operation = operation, .conflict = Conflict::replace, .trees = true};
    options.backup = {.wanted = backup, .suffix = "~"};
    return sweep::carry(options, source, destination).last;
}

struct NamedPair {
    const char *name;
    Operation first, second;
    bool firstStore, secondStore;
    bool backup = false; // by the second, of what it replaces
};

struct TogetherScene {
    explicit TogetherScene(const NamedPair &pair) {
        for (const char *place : {"one", "two", "to"}) {
            EXPECT_EQ(0, ::mkdir((scratch / place).c_str(), 0755));
            EXPECT_EQ(0, ::mkdir((scratch / place + "/@eaDir").c_str(), 0777));
        }
        put("one", pair.firstStore);
        put("two", pair.secondStore);
        put("to", true);
    }
    void put(const std::string &place, bool stored) const {
        kit::writeFile(scratch / (place + "/file"), place);
        if (stored) {
            kit::writeFile(store(place), stream::bytes({{"comment", place}}));
        }
    }
    std::string store(const std::string &place) const { return scratch / (place + "/@eaDir/file@VexoEAStream"); }
    std::string file(const std::string &place) const { return scratch / (place + "/file"); }
    static std::string contentOf(const std::string &path) { return kit::exists(path) ? kit::readFile(path) : ""; }
    bool isWhole(const std::string &place, bool stored) const {
        return contentOf(file("to")) == place &&
               contentOf(store("to")) == (stored ? stream::bytes({{"comment", place}}) : "");
    }
    bool isWhole(const NamedPair &pair) const {
        return isWhole("one", pair.firstStore) || isWhole("two", pair.secondStore) || isWhole("to", true);
    }
    // What was kept is one of them, with its store; nothing may have been there.
    bool isKeptWhole(const NamedPair &pair) const {
        const std::string kept = contentOf(file("to") + "~");
        const bool stored = kept == "one" ? pair.firstStore : kept == "two" ? pair.secondStore : !kept.empty();
        return contentOf(scratch / "to/@eaDir/file~@VexoEAStream") ==
               (stored ? stream::bytes({{"comment", kept}}) : "");
    }
    // For messages.
    std::string state() const {
        std::string text = contentOf(file("to")) + " with a store of " + std::to_string(contentOf(store("to")).size());
        for (const char *place : {"one", "two"}) {
            text += std::string(", ") + place + " " + contentOf(told(place)) + contentOf(told(place) + ".why");
        }
        return text;
    }
    std::string told(const std::string &place) const { return scratch / ("told." + place); }
    void run(const NamedPair &pair, const std::string &place) const {
        tell(place, carry(pair.second, file(place), file("to"), pair.backup));
    }
    void tell(const std::string &place, const Outcome &outcome) const {
        const bool good = outcome.status == Status::done && sweep::is_whole(outcome);
        kit::writeFile(told(place), good ? "good" : "bad");
        kit::writeFile(told(place) + ".why", sweep::words_of(outcome));
    }
    // Nothing of what was under way, and no note.
    bool isTidy() const {
        std::vector<std::string> names = kit::namesIn(scratch / "to");
        const std::string stores = scratch / "to/@eaDir";
        for (const std::string &name : kit::exists(stores) ? kit::namesIn(stores) : std::vector<std::string>()) {
            names.push_back(name);
        }
        return std::ranges::none_of(names, [](const std::string &name) { return name.starts_with(".vexofileop-"); });
    }
    kit::ScratchDirectory scratch;
};

class Together : public sweep::Sweep<::testing::TestWithParam<NamedPair>> {
  protected:
    void TearDown() override { set_lock_patience(kLockPatience); }

    static size_t callsOf() {
        static std::map<std::string, size_t> known;
        const auto [entry, isNew] = known.try_emplace(GetParam().name);
        if (isNew) {
            const TogetherScene scene(GetParam());
            entry->second = watched({}, [&] {
                                (void)carry(GetParam().first, scene.file("one"), scene.file("to"));
                                return 0;
                            }).calls.size();
        }
        return entry->second;
    }
    // The first one, with somebody who meets it before the call.
    static bool first(const TogetherScene &scene, size_t at, const std::function<void()> &meeting) {
        const faults::Plan plan{.action = faults::Plan::Action::meet, .at = at, .meeting = meeting};
        return faults::supervise(plan,
                                 [&](faults::Window &window) {
                                     window.open();
                                     const Outcome outcome =
                                         carry(GetParam().first, scene.file("one"), scene.file("to"));
                                     window.close();
                                     scene.tell("one", outcome);
                                 })
            .reached;
    }
};
constexpr Operation copies = Operation::copy, moves = Operation::move;
INSTANTIATE_TEST_SUITE_P(Pairs, Together,
                         ::testing::Values(NamedPair{"CopyAndCopy", copies, copies, true, true},
                                           NamedPair{"MoveAndCopy", moves, copies, true, true},
                                           NamedPair{"CopyAndMove", copies, moves, true, true},
                                           NamedPair{"MoveAndMove", moves, moves, true, true},
                                           NamedPair{"CopyAndBackup", copies, copies, true, true, true},
                                           NamedPair{"MoveAndBackup", moves, moves, true, true, true},
                                           NamedPair{"StoreAndNone", copies, copies, true, false},
                                           NamedPair{"NoneAndStore", copies, copies, false, true},
                                           NamedPair{"MovedNoneAndStore", moves, copies, false, true}),
                         [](const auto &each) { return std::string(each.param.name); });

// The second has done all that it can before the first goes on.
TEST_P(Together, OneAtEachCallOfTheOtherEndsWithOneOfThemWhole) {
    KIT_NOT_SANITIZED();
    set_lock_patience(0ms);
    int met = 0;
    // Most of the first half is looking and copying.
    for (size_t at = 0;; at += at < callsOf() / 2 ? 9U : 1U) {
        const TogetherScene scene(GetParam());
        if (!first(scene, at, [&] { scene.run(GetParam(), "two"); })) {
            break;
        }
        ++met;
        const bool failed = kit::readFile(scene.told("one")) == "bad" || kit::readFile(scene.told("two")) == "bad";
        // Who has no store takes no lock, and tells when it came in between.
        const bool both = GetParam().firstStore && GetParam().secondStore;
        EXPECT_TRUE(scene.isWhole(GetParam()) || (failed && !both)) << at << ": " << scene.state();
        EXPECT_TRUE(scene.isKeptWhole(GetParam())) << at << ": " << scene.state();
        EXPECT_TRUE(scene.isTidy()) << at;
    }
    EXPECT_LT(30, met);
}

TEST_P(Together, OneBesideTheOtherWaitsForIt) {
    KIT_NOT_SANITIZED();
    for (size_t at = 0;; at += at < callsOf() / 2 ? 40U : 9U) {
        const TogetherScene scene(GetParam());
        pid_t second = -1;
        const bool reached = first(scene, at, [&] {
            second = ::fork();
            if (second == 0) {
                scene.run(GetParam(), "two");
                ::_exit(0);
            }
        });
        if (!reached) {
            break;
        }
        int status = 0;
        EXPECT_EQ(second, ::waitpid(second, &status, 0));
        const bool failed = kit::readFile(scene.told("one")) == "bad" || kit::readFile(scene.told("two")) == "bad";
        EXPECT_TRUE(scene.isWhole(GetParam()) || failed) << at;
        EXPECT_TRUE(scene.isKeptWhole(GetParam())) << at << ": " << scene.state();
        EXPECT_TRUE(scene.isTidy()) << at;
    }
}

class LockedDirectory : public Together {};
INSTANTIATE_TEST_SUITE_P(Operations, LockedDirectory,
                         ::testing::Values(NamedPair{"Copy", copies, copies, true, true},
                                           NamedPair{"Move", moves, moves, true, true}),
                         [](const auto &each) { return std::string(each.param.name); });

// Whoever may read a directory may hold its lock for as long as he likes.
TEST_P(LockedDirectory, IsWaitedForAndThenTold) {
    set_lock_patience(1ms);
    const TogetherScene scene(GetParam());
    const Descriptor held = open_directory(AT_FDCWD, scene.scratch / "to");
    ASSERT_EQ(0, ::flock(held.get(), LOCK_SH));
    const Outcome outcome = carry(GetParam().first, scene.file("one"), scene.file("to"));
    EXPECT_EQ(Status::failed, outcome.status);
    ASSERT_TRUE(outcome.problem);
    EXPECT_NE(std::string::npos, outcome.problem->reason.find("lock")) << outcome.problem->reason;
    EXPECT_TRUE(scene.isWhole("to", true));
    EXPECT_EQ("one", kit::readFile(scene.file("one")));
    EXPECT_TRUE(scene.isTidy());
    ASSERT_EQ(0, ::flock(held.get(), LOCK_UN));
    scene.tell("one", carry(GetParam().first, scene.file("one"), scene.file("to")));
    EXPECT_TRUE(scene.isWhole("one", true)) << scene.state();
    EXPECT_EQ("good", kit::readFile(scene.told("one"))) << scene.state();
}

// Two attributes of one file, which has a store before or gets it then.
class ChangedTogether : public sweep::Sweep<::testing::TestWithParam<bool>> {
  protected:
    void SetUp() override {
        Sweep::SetUp();
        if (IsSkipped()) {
            return;
        }
        file = scratch / "file";
        kit::writeFile(file, "data");
        calls = supervised({}, "none").calls.size();
    }
    void TearDown() override { set_lock_patience(kLockPatience); }
    void begin() const {
        std::filesystem::remove_all(scratch / "@eaDir");
        if (GetParam()) {
            Store(file).set("before", "b", Store::Existing::either);
        }
    }
    // Nothing: it is set.
    std::string set(const std::string &name) const {
        try {
            Store(file).set(name, "value of " + name, Store::Existing::either);
        } catch (const Failure &failure) {
            return failure.what();
        }
        return "";
    }
    bool has(const std::string &name) const {
        for (const Store::Attribute &attribute : Store(file).list()) {
            if (attribute.name == name) {
                return Store(file).get(name) == (name == "before" ? "b" : "value of " + name);
            }
        }
        return false;
    }
    faults::Outcome supervised(const faults::Plan &plan, const std::string &name) const {
        begin();
        return faults::supervise(plan, [&](faults::Window &window) {
            window.open();
            const std::string told = set(name);
            window.close();
            kit::writeFile(scratch / "told", told);
        });
    }

    kit::ScratchDirectory scratch;
    std::string file;
    size_t calls = 0;
};
INSTANTIATE_TEST_SUITE_P(Stores, ChangedTogether, ::testing::Bool(),
                         [](const auto &each) { return each.param ? "There" : "New"; });

TEST_P(ChangedTogether, BothAreSet) {
    KIT_NOT_SANITIZED();
    for (size_t at = 0; at < calls; at += 2) {
        pid_t second = -1;
        const auto meeting = [&] {
            second = ::fork();
            if (second == 0) {
                const std::string told = set("two");
                kit::writeFile(scratch / "told.two", told);
                ::_exit(0);
            }
        };
        if (!supervised({.action = faults::Plan::Action::meet, .at = at, .meeting = meeting}, "one").reached) {
            break;
        }
        int status = 0;
        EXPECT_EQ(second, ::waitpid(second, &status, 0));
        EXPECT_EQ("", kit::readFile(scratch / "told")) << at;
        EXPECT_EQ("", kit::readFile(scratch / "told.two")) << at;
        EXPECT_TRUE(has("one") && has("two") && (!GetParam() || has("before"))) << at;
    }
}

TEST_P(ChangedTogether, WhoGivesUpSaysWhy) {
    KIT_NOT_SANITIZED();
    set_lock_patience(0ms);
    int refused = 0;
    for (size_t at = 0; at < calls; ++at) {
        std::string second;
        const auto meeting = [&] { second = set("two"); };
        if (!supervised({.action = faults::Plan::Action::meet, .at = at, .meeting = meeting}, "one").reached) {
            break;
        }
        const std::string first = kit::readFile(scratch / "told");
        for (const auto &[name, told] : {std::pair<std::string, std::string>{"one", first}, {"two", second}}) {
            EXPECT_EQ(told.empty(), has(name)) << at << ": " << told;
            EXPECT_TRUE(told.empty() || told.find("another process") != std::string::npos) << at << ": " << told;
        }
        EXPECT_TRUE(!GetParam() || has("before")) << at;
        refused += second.empty() ? 0 : 1;
    }
    EXPECT_LT(3, refused);
}

Outcome write_in_place(const std::string &source, const std::string &destination) {
    return sweep::carry({.conflict = Conflict::replace, .inPlace = true}, source, destination).last;
}

// Two that write into one file, each byte of it: the second waits, for so long.
TEST(TogetherInPlace, WaitsForWhoWritesAndThenGivesUp) {
    const kit::ScratchDirectory scratch;
    kit::writeFile(scratch / "from", "new");
    kit::writeFile(scratch / "to", "old");
    const Descriptor other(::open((scratch / "to").c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(0, ::flock(other.get(), LOCK_EX));
    set_lock_patience(20ms);
    const Outcome refused = write_in_place(scratch / "from", scratch / "to");
    set_lock_patience(kLockPatience);
    EXPECT_EQ(Status::failed, refused.status);
    ASSERT_TRUE(refused.problem);
    EXPECT_EQ("another process is writing into it, and did not end in time", refused.problem->reason);
    EXPECT_EQ("old", kit::readFile(scratch / "to"));
    ASSERT_EQ(0, ::flock(other.get(), LOCK_UN));
    const Outcome done = write_in_place(scratch / "from", scratch / "to");
    EXPECT_TRUE(done.status == Status::done && sweep::is_whole(done)) << sweep::words_of(done);
    EXPECT_EQ("new", kit::readFile(scratch / "to"));
}

// A second one comes at each call of the first, and waits for its end: the file is one of both.
TEST(TogetherInPlace, FileIsOneOfBoth) {
    KIT_NOT_SANITIZED();
    if (const std::string why = faults::unavailable(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    const auto carried = [](const kit::ScratchDirectory &scratch, const faults::Plan &plan) {
        return faults::supervise(plan, [&](faults::Window &window) {
            window.open();
            (void)write_in_place(scratch / "one", scratch / "to");
            window.close();
        });
    };
    const auto fill = [](const kit::ScratchDirectory &scratch) {
        kit::writeFile(scratch / "one", std::string(300'000, '1'));
        kit::writeFile(scratch / "two", std::string(200'000, '2'));
        kit::writeFile(scratch / "to", "old");
    };
    const kit::ScratchDirectory whole;
    fill(whole);
    const size_t calls = carried(whole, {}).calls.size();
    for (size_t at = 0; at < calls; ++at) {
        const kit::ScratchDirectory scratch;
        fill(scratch);
        pid_t second = -1;
        const auto meeting = [&] {
            second = ::fork();
            if (second == 0) {
                ::_exit(write_in_place(scratch / "two", scratch / "to").status == Status::done ? 0 : 1);
            }
            // It is at its end, or waits for the first.
            for (int count = 0; count < 20 && ::waitpid(second, nullptr, WNOHANG | WNOWAIT) == 0; ++count) {
                ::usleep(1000);
            }
        };
        const bool reached =
            carried(scratch, {.action = faults::Plan::Action::meet, .at = at, .meeting = meeting}).reached;
        if (second > 0) {
            ::waitpid(second, nullptr, 0);
        }
        const std::string content = kit::readFile(scratch / "to");
        EXPECT_TRUE(content == std::string(300'000, '1') || content == std::string(200'000, '2')) << at;
        if (!reached || HasFailure()) {
            break;
        }
    }
}

// Somebody puts a link in the place of the file just before it is written: nothing is written through it.
TEST(TogetherInPlace, NoLinkIsFollowed) {
    KIT_NOT_SANITIZED();
    if (const std::string why = faults::unavailable(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    size_t calls = 1;
    for (size_t at = 0; at < calls; ++at) {
        const kit::ScratchDirectory scratch;
        kit::writeFile(scratch / "one", "new");
        kit::writeFile(scratch / "to", "old");
        kit::writeFile(scratch / "other", "other");
        const auto meeting = [&] {
            (void)::unlink((scratch / "to").c_str());
            (void)::symlink("other", (scratch / "to").c_str());
        };
        const faults::Plan plan{.action = faults::Plan::Action::meet, .at = at, .meeting = meeting};
        const faults::Outcome outcome = faults::supervise(plan, [&](faults::Window &window) {
            window.open();
            (void)write_in_place(scratch / "one", scratch / "to");
            window.close();
        });
        calls = std::max(calls, outcome.calls.size());
        EXPECT_EQ("other", kit::readFile(scratch / "other")) << at;
    }
    EXPECT_LT(20U, calls);
}

} // namespace
