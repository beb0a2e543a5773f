// A repair of stores with each of its system calls killed or refused: at every moment what stands there is the old or
// the new, the quarantine has the old of everything that is new, the same command again finishes, and putting back
// gives what there was.
#include "tests/faults/system_calls.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/sanitized.h"
#include "tests/tools/engine/store_scene.h"
#include "tools/engine/store/store.h"
#include "tools/engine/stores/store_undo.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace store_scene;

struct QuietUndo : engine::UndoWatcher {
    bool stopped() const override { return false; }
    void undone(const std::string &, State state, const std::string &reason) override {
        left += state == State::left ? reason + "\n" : "";
    }
    std::string left;
};

// A damaged stream, a metadata attribute, a planted link and an empty directory.
struct RepairScene : StoreScene {
    RepairScene() : StoreScene(2) {
        with_stream("file", damaged());
        kit::setAttribute(*this / "file", engine::kMetadataName, damaged_metadata());
        file("link");
        EXPECT_EQ(0, ::symlink("elsewhere", stream("link").c_str()));
        EXPECT_EQ(0, ::mkdir((*this / "@eaDir/file").c_str(), 0777));
        print = kit::Fingerprint::of(root());
    }
    static std::string damaged() {
        return with_number(stream::bytes(kThree, 4, "TEXTttxt"), 100, 11) + "fork" + "more";
    }
    static std::string damaged_metadata() {
        return with_number(adouble_bytes::metadata().replace(122, 8, "TEXTttxt"), 30, 0);
    }
    // What is wrong, after `done` or in between; empty: nothing.
    std::string wrong(bool done) const {
        std::string text;
        const std::string now = kit::exists(stream("file")) ? kit::readFile(stream("file")) : "none";
        const std::string sound = stream::bytes(kThree, 4, "TEXTttxt") + "fork";
        if (now != sound && (done || now != damaged())) {
            text += "the stream is neither old nor new, or not done; ";
        }
        if (now == sound && !is_kept(damaged())) {
            text += "the stream is new, and the quarantine has no old one; ";
        }
        const std::string attribute = kit::attribute(*this / "file", engine::kMetadataName);
        const bool isNew = attribute.size() == 402 && attribute.find("TEXTttxt") != std::string::npos &&
                           attribute != damaged_metadata();
        if (!isNew && (done || attribute != damaged_metadata())) {
            text += "the attribute is neither old nor new, or not done; ";
        }
        if (isNew && !is_kept(damaged_metadata())) {
            text += "the attribute is new, and the quarantine has no old one; ";
        }
        if (done && (kit::exists(stream("link")) || kit::exists(*this / "@eaDir/file"))) {
            text += "something was not taken away; ";
        }
        return text;
    }
    bool is_kept(const std::string &bytes) const {
        for (const std::string &name : kit::namesIn(quarantine())) {
            if (name.ends_with(".old") && kit::readFile(quarantine() + "/" + name) == bytes) {
                const std::string number = " number=" + name.substr(0, name.find('.')) + " ";
                if (kit::readFile(quarantine() + "/manifest").find(number) != std::string::npos) {
                    return true; // others are of a run that was stopped before it changed anything
                }
            }
        }
        return false;
    }
    bool is_clean() const { return names().empty(); }
    std::string undone() const {
        QuietUndo told;
        engine::undo_repairs(quarantine(), told);
        return told.left + print.differenceTo(kit::Fingerprint::of(root()), {"accessed", "created", "modified"});
    }
    kit::Fingerprint print;
};

class StoreRepairSweep : public ::testing::Test {
  protected:
    void SetUp() override {
        KIT_NEEDS_TO_MAKE_STORES();
        if (const std::string why = faults::unavailable(); !why.empty()) {
            GTEST_SKIP() << why;
        }
    }
    static faults::Outcome supervised(const RepairScene &scene, const faults::Plan &plan) {
        return faults::supervise(plan, [&](faults::Window &window) {
            window.open();
            Told told;
            try {
                told = scene.repair();
            } catch (const engine::Failure &) {
                ::_exit(8);
            }
            window.close();
            const bool all = std::all_of(told.findings.begin(), told.findings.end(), [](const engine::Finding &one) {
                return one.state == engine::Finding::State::mended;
            });
            ::_exit(!told.troubles.empty() ? 8 : all && told.findings.size() == 4 ? 0 : 4);
        });
    }
    static std::string print_of(const faults::SystemCall &call, size_t at) {
        return "call " + std::to_string(at) + ", " + faults::nameOf(call) + " " + call.path;
    }
    static void check(const RepairScene &scene, const faults::Outcome &outcome, const std::string &point) {
        ASSERT_FALSE(outcome.hung) << point;
        const bool succeeded = WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == 0;
        EXPECT_EQ("", scene.wrong(succeeded)) << point;
        (void)scene.repair();
        EXPECT_EQ("", scene.wrong(true)) << "again, after " << point;
        EXPECT_TRUE(scene.is_clean()) << "again, after " << point;
        EXPECT_EQ("", scene.undone()) << "put back, after " << point;
    }
    static size_t step(size_t calls) {
        return std::getenv("VEXO_FULL") != nullptr ? 1 : std::max<size_t>(1, calls / 60);
    }
};

TEST_F(StoreRepairSweep, KilledAnywhereItIsTheOldOrTheNewAndEverythingComesBack) {
    KIT_NOT_SANITIZED();
    std::vector<faults::SystemCall> calls;
    {
        const RepairScene scene;
        calls = supervised(scene, {}).calls;
        ASSERT_EQ("", scene.wrong(true));
        ASSERT_LT(100U, calls.size());
    }
    for (size_t at = 0; at < calls.size(); at += step(calls.size())) {
        const RepairScene scene;
        check(scene, supervised(scene, faults::planAt(faults::Plan::Action::kill, calls, at)),
              "a kill before " + print_of(calls[at], at));
    }
}

TEST_F(StoreRepairSweep, WhicheverCallFailsItIsTheOldOrTheNewAndEverythingComesBack) {
    KIT_NOT_SANITIZED();
    std::vector<faults::SystemCall> calls;
    {
        const RepairScene scene;
        calls = supervised(scene, {}).calls;
    }
    for (size_t at = 0; at < calls.size(); at += step(calls.size())) {
        for (const int error : faults::plausibleErrors(calls[at])) {
            const RepairScene scene;
            check(scene, supervised(scene, faults::planAt(faults::Plan::Action::fail, calls, at, error)),
                  print_of(calls[at], at) + " with " + std::strerror(error));
        }
    }
}

// Somebody who owns the tree, at each call: a link or a pipe in the place of a directory, of "@eaDir" or of a store
// file.
TEST_F(StoreRepairSweep, WhateverItsOwnerPutsInPlaceLeadsNowhere) {
    KIT_NOT_SANITIZED();
    struct Exchange {
        const char *name;
        bool pipe;
    };
    for (const Exchange &exchange : {Exchange{"d", false},
                                     {"d/@eaDir", false},
                                     {"d/@eaDir/file@VexoEAStream", false},
                                     {"d/@eaDir/file@VexoEAStream", true},
                                     {"d/file", true}}) {
        size_t calls = 0;
        {
            const RepairScene scene;
            calls = supervised(scene, {}).calls.size();
        }
        for (size_t at = 0; at < calls; at += step(calls) * 2) {
            const RepairScene scene;
            const std::string elsewhere = scene.scratch / "elsewhere", place = scene.scratch / exchange.name;
            ASSERT_EQ(0, ::mkdir(elsewhere.c_str(), 0755));
            ASSERT_EQ(0, ::mkdir((elsewhere + "/@eaDir").c_str(), 0777));
            kit::writeFile(elsewhere + "/file", "data of somebody else");
            kit::writeFile(elsewhere + "/@eaDir/file@VexoEAStream", RepairScene::damaged() + "and more");
            kit::setAttribute(elsewhere + "/file", engine::kMetadataName, RepairScene::damaged_metadata());
            const auto before = kit::Fingerprint::of(elsewhere);
            faults::Plan plan{faults::Plan::Action::meet, at};
            plan.meeting = [&] {
                (void)::rename(place.c_str(), (scene.scratch / "aside").c_str());
                const std::string below = std::string(exchange.name).substr(1);
                (void)(exchange.pipe ? ::mkfifo(place.c_str(), 0666)
                                     : ::symlink((elsewhere + below).c_str(), place.c_str()));
            };
            const faults::Outcome outcome = supervised(scene, plan);
            const std::string point = std::string(exchange.name) + " before call " + std::to_string(at);
            EXPECT_FALSE(outcome.hung) << point;
            EXPECT_TRUE(WIFEXITED(outcome.status)) << point;
            EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(elsewhere), {"accessed"})) << point;
        }
    }
}

} // namespace
