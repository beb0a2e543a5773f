// --sync: what was made is on the disk before the run ends and before a source goes, and what cannot be is a failure.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/engine/sweep.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace engine;

// A tree with a store, that goes to another volume.
struct WrittenScene {
    WrittenScene() : volume(kit::Volume::tmpfs(16 << 20)) {
        for (const char *name : {"tree", "tree/in", "tree/@eaDir"}) {
            EXPECT_EQ(0, ::mkdir((scratch / name).c_str(), 0755));
        }
        kit::writeFile(scratch / "tree/file", "file");
        kit::writeFile(scratch / "tree/in/other", "other");
        kit::writeFile(scratch / "tree/@eaDir/file@VexoEAStream", stream::bytes({{"comment", "file"}}));
    }
    bool isThere() const {
        return kit::exists(volume / "to/file") && kit::readFile(volume / "to/file") == "file" &&
               kit::exists(volume / "to/in/other") && kit::readFile(volume / "to/in/other") == "other";
    }
    kit::ScratchDirectory scratch;
    kit::Volume volume;
};

constexpr int kGood = 0, kBad = 3;

class WriteOut : public sweep::Sweep<::testing::Test> {
  protected:
    void SetUp() override {
        Sweep::SetUp();
        if (IsSkipped()) {
            return;
        }
        try {
            (void)kit::Volume::tmpfs(1 << 20);
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
    }
    static faults::Outcome carry(const WrittenScene &scene, const TransferOptions &options,
                                 const faults::Plan &plan = {}) {
        return faults::supervise(plan, [&](faults::Window &window) {
            sweep::Watcher watcher;
            Transfer transfer(options, watcher);
            window.open();
            transfer.run(scene.scratch / "tree", scene.volume / "to");
            transfer.leave();
            window.close();
            ::_exit(watcher.told.good ? kGood : kBad);
        });
    }
    static TransferOptions options(Operation operation, Sync sync) {
        return {.operation = operation, .links = true, .trees = true, .countsAlone = true, .sync = sync};
    }
    static std::vector<size_t> placesOf(const faults::Outcome &outcome, std::initializer_list<int> numbers) {
        std::vector<size_t> places;
        for (size_t at = 0; at < outcome.calls.size(); ++at) {
            if (std::ranges::find(numbers, outcome.calls[at].number) != numbers.end()) {
                places.push_back(at);
            }
        }
        return places;
    }
    static bool hasFailed(const faults::Outcome &outcome) {
        return WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == kBad;
    }
    static bool hasDone(const faults::Outcome &outcome) {
        return WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == kGood;
    }
};

TEST_F(WriteOut, NothingIsWrittenOutWhereNobodyAsks) {
    for (const Operation operation : {Operation::copy, Operation::move}) {
        const WrittenScene scene;
        const faults::Outcome watched = carry(scene, options(operation, Sync::none));
        EXPECT_TRUE(hasDone(watched));
        EXPECT_TRUE(placesOf(watched, {SYS_fsync, SYS_fdatasync, SYS_syncfs, SYS_sync}).empty());
    }
}

TEST_F(WriteOut, EachFileIsBeforeItHasItsNameAndEachDirectoryBeforeTheEnd) {
    const WrittenScene scene;
    const faults::Outcome watched = carry(scene, options(Operation::copy, Sync::file));
    EXPECT_TRUE(hasDone(watched));
    EXPECT_TRUE(scene.isThere());
    const auto written = placesOf(watched, {SYS_fsync}), named = placesOf(watched, {SYS_renameat, SYS_renameat2});
    ASSERT_FALSE(named.empty());
    ASSERT_FALSE(written.empty());
    EXPECT_LT(written.front(), named.front());
    EXPECT_GT(written.back(), named.back());
    EXPECT_LE(7u, written.size()); // two files, a stream and its directory, three directories
}

// What is read back to be verified is read from the volume, the stream beside the file as well.
TEST_F(WriteOut, WhatIsVerifiedIsLetGoOf) {
    KIT_NOT_SANITIZED();
    const WrittenScene first;
    TransferOptions verified = options(Operation::copy, Sync::none);
    verified.verify = true;
    const faults::Outcome watched = carry(first, verified);
    EXPECT_TRUE(hasDone(watched));
    EXPECT_EQ(3u, placesOf(watched, {SYS_fadvise64}).size()); // two files and a stream
    const size_t count = placesOf(watched, {SYS_fsync}).size();
    EXPECT_EQ(4u, count); // with the stream's directory
    for (size_t at = 0; at < count; ++at) {
        const WrittenScene scene;
        const faults::Outcome failed =
            carry(scene, verified,
                  {.action = faults::Plan::Action::fail, .at = at, .error = EIO, .number = SYS_fsync, .alike = true});
        EXPECT_TRUE(hasFailed(failed)) << at;
        EXPECT_NE(kit::exists(scene.volume / "to/file"), kit::exists(scene.volume / "to/in/other")) << at;
    }
}

TEST_F(WriteOut, SourceGoesOnlyAfterThat) {
    for (const Sync sync : {Sync::file, Sync::volume}) {
        const WrittenScene scene;
        const faults::Outcome watched = carry(scene, options(Operation::move, sync));
        EXPECT_TRUE(hasDone(watched));
        EXPECT_TRUE(scene.isThere());
        EXPECT_FALSE(kit::exists(scene.scratch / "tree"));
        const auto written = placesOf(watched, {sync == Sync::file ? SYS_fsync : SYS_syncfs});
        for (const size_t gone : placesOf(watched, {SYS_unlinkat, SYS_unlink, SYS_rmdir})) {
            if (watched.calls[gone].path.find(".vexofileop-") != std::string::npos) {
                continue; // what was under way
            }
            if (watched.calls[gone].path == "@eaDir") {
                continue; // goes where it is empty alone: what lay in it has gone before
            }
            const auto before = std::ranges::lower_bound(written, gone);
            ASSERT_NE(written.begin(), before)
                << faults::nameOf(watched.calls[gone]) << " " << watched.calls[gone].path;
            const auto named = placesOf(watched, {SYS_renameat, SYS_renameat2});
            const auto lastNamed = std::ranges::lower_bound(named, gone);
            EXPECT_TRUE(lastNamed == named.begin() || *(before - 1) > *(lastNamed - 1)) << gone;
        }
    }
}

TEST_F(WriteOut, VolumeIsWrittenOutAtTheEndOfACopy) {
    const WrittenScene scene;
    const faults::Outcome watched = carry(scene, options(Operation::copy, Sync::volume));
    EXPECT_TRUE(hasDone(watched));
    const auto written = placesOf(watched, {SYS_syncfs}), opened = placesOf(watched, {SYS_mkdirat});
    ASSERT_EQ(1u, written.size());
    ASSERT_FALSE(opened.empty());
    EXPECT_GT(written.front(), opened.back());
}

// The kernel tells an error once.
TEST_F(WriteOut, EachErrorFailsTheRunAndKeepsWhatItIsAbout) {
    KIT_NOT_SANITIZED();
    for (const Operation operation : {Operation::copy, Operation::move}) {
        for (const Sync sync : {Sync::file, Sync::volume}) {
            const int number = sync == Sync::file ? SYS_fsync : SYS_syncfs;
            const WrittenScene first;
            const size_t count = placesOf(carry(first, options(operation, sync)), {number}).size();
            ASSERT_LT(0u, count);
            for (size_t at = 0; at < count; ++at) {
                const WrittenScene scene;
                const faults::Outcome failed = carry(
                    scene, options(operation, sync),
                    {.action = faults::Plan::Action::fail, .at = at, .error = EIO, .number = number, .alike = true});
                ASSERT_TRUE(failed.reached);
                EXPECT_TRUE(hasFailed(failed)) << at;
                const bool atSource = kit::exists(scene.scratch / "tree/file");
                EXPECT_TRUE(atSource || (kit::exists(scene.volume / "to/file") &&
                                         kit::readFile(scene.volume / "to/file") == "file"));
                EXPECT_TRUE(operation == Operation::move || atSource);
                // At the end all of it has been written out before.
                EXPECT_TRUE(kit::exists(scene.scratch / "tree") || (sync == Sync::volume && at + 1 == count)) << at;
            }
        }
    }
}

} // namespace
