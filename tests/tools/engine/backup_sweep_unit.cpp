// A file that is replaced and kept, with each system call on the way killed or refused: the old file is whole, with its
// store, under one of its two names at every moment, and the same command finishes it.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/tools/engine/sweep.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace engine;

struct Kept {
    explicit Kept(const std::string &directory) : below(directory) {
        for (const char *name : {"from", "from/@eaDir", "to", "to/@eaDir"}) {
            EXPECT_EQ(0, ::mkdir((scratch / name).c_str(), 0755));
        }
        kit::writeFile(scratch / "from/file", "new");
        kit::writeFile(scratch / "from/@eaDir/file@VexoEAStream", stream::bytes({{"comment", "new"}}));
        kit::writeFile(scratch / "to/file", "old one");
        kit::writeFile(scratch / "to/@eaDir/file@VexoEAStream", stream::bytes({{"comment", "old"}}));
    }
    BackupOptions options() const { return {true, below.empty() ? "~" : "", below.empty() ? "" : scratch / below}; }
    // 0, or 3 where it failed, or 4 where the new file has lost something on its way, as it says.
    int replace() const {
        const Outcome last = sweep::carry({.conflict = Conflict::update, .backup = options()}, scratch / "from/file",
                                          scratch / "to/file")
                                 .last;
        return last.status != Status::done ? 3 : sweep::is_whole(last) ? 0 : 4;
    }
    std::string backup() const { return below.empty() ? "to/file~" : below + "/file"; }
    std::string backupStore() const {
        return below.empty() ? "to/@eaDir/file~@VexoEAStream" : below + "/@eaDir/file@VexoEAStream";
    }
    bool has(const std::string &name, const std::string &content) const {
        return kit::exists(scratch / name) && kit::readFile(scratch / name) == content;
    }
    bool isKept() const {
        return has("to/file", "new") && has("to/@eaDir/file@VexoEAStream", stream::bytes({{"comment", "new"}})) &&
               has(backup(), "old one") && has(backupStore(), stream::bytes({{"comment", "old"}}));
    }
    std::string told() const {
        std::string text;
        for (const char *directory : {"to", "to/@eaDir", "kept", "kept/@eaDir"}) {
            if (!kit::exists(scratch / directory)) {
                continue;
            }
            for (const std::string &name : kit::namesIn(scratch / directory)) {
                text += std::string("\n") + directory + "/" + name;
            }
        }
        return text;
    }
    kit::ScratchDirectory scratch;
    std::string below;
};

class BackupSweep : public sweep::Sweep<::testing::TestWithParam<const char *>> {
  protected:
    static faults::Outcome supervised(const Kept &scene, const faults::Plan &plan) {
        return watched(plan, [&] { return scene.replace(); });
    }
};

TEST_P(BackupSweep, KilledAnywhereTheSameCommandEndsAsOneThatWasNot) {
    KIT_NOT_SANITIZED();
    const Kept first(GetParam());
    const auto calls = supervised(first, {}).calls;
    ASSERT_TRUE(first.isKept());
    ASSERT_LT(50u, calls.size());
    int between = 0;
    for (size_t at = 0; at < calls.size(); ++at) {
        if (sweep::only_looks(calls[at])) {
            continue;
        }
        const Kept scene(GetParam());
        if (!killed(at, calls, [&] { (void)scene.replace(); })) {
            break;
        }
        EXPECT_TRUE(scene.has("to/file", "old one") || scene.has(scene.backup(), "old one")) << at;
        between += kit::exists(scene.scratch / "to/file") ? 0 : 1;
        (void)scene.replace();
        EXPECT_TRUE(scene.isKept()) << at;
    }
    EXPECT_LT(0, between);
}

TEST_P(BackupSweep, RefusedAnywhereTheOldFileIsThereOrKept) {
    KIT_NOT_SANITIZED();
    const Kept first(GetParam());
    const auto calls = supervised(first, {}).calls;
    int refused = 0;
    for (size_t at = 0; at < calls.size(); ++at) {
        const Kept scene(GetParam());
        const faults::Outcome outcome = supervised(scene, faults::planAt(faults::Plan::Action::fail, calls, at, EIO));
        const std::string where = faults::nameOf(calls[at]) + " " + calls[at].path + ", " + std::to_string(at);
        const int status = WEXITSTATUS(outcome.status);
        refused += outcome.reached && status != 0 ? 1 : 0;
        EXPECT_TRUE(scene.has("to/file", "old one") || scene.has(scene.backup(), "old one")) << where;
        if (status == 4) {
            EXPECT_TRUE(scene.has(scene.backupStore(), stream::bytes({{"comment", "old"}}))) << where;
            continue;
        }
        if (status == 3) {
            (void)scene.replace();
        }
        EXPECT_TRUE(scene.isKept()) << where << ", " << status << scene.told();
    }
    EXPECT_LT(3, refused);
}

INSTANTIATE_TEST_SUITE_P(Into, BackupSweep, ::testing::Values("", "kept"));

} // namespace
