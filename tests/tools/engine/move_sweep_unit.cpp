// A file that is moved within its volume, killed before each system call: it has its store at the old place or at the
// new one, once somebody comes next.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/engine/sweep.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using namespace engine;

sweep::Told told_of_move(const std::string &source, const std::string &destination) {
    return sweep::carry({.operation = Operation::move, .conflict = Conflict::replace, .trees = true}, source,
                        destination);
}

bool move(const std::string &source, const std::string &destination) {
    return told_of_move(source, destination).good;
}

// What is moved, and whether stores are "._" files; else they lie in "@eaDir".
struct Kind {
    const char *name;
    bool directory, doubles;
};
void PrintTo(const Kind &kind, std::ostream *out) {
    *out << kind.name;
}

// `entry` is a file, or a directory.
struct MoveScene {
    explicit MoveScene(const Kind &kind) : doubles(kind.doubles) {
        if (doubles) {
            ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=0").c_str(), 1);
        }
        for (const char *name : {"from", "to"}) {
            EXPECT_EQ(0, ::mkdir((scratch / name).c_str(), 0755));
            EXPECT_TRUE(doubles || ::mkdir((scratch / name + "/@eaDir").c_str(), 0777) == 0);
        }
        if (kind.directory) {
            EXPECT_EQ(0, ::mkdir(source.c_str(), 0755));
        } else {
            kit::writeFile(source, "new");
            kit::writeFile(destination, "old");
            kit::writeFile(storeAt("to", "VexoEAStream"), stream::bytes({{"comment", "old"}}));
            if (!doubles) {
                kit::writeFile(storeAt("to", "VexoResource"), "old resource");
            }
        }
        kit::writeFile(storeAt("from", "VexoEAStream"), store);
        if (!doubles) {
            kit::writeFile(storeAt("from", "VexoResource"), "resource");
        }
    }
    ~MoveScene() { ::unsetenv("VEXOFILEOP_FSTYPES"); }
    MoveScene(const MoveScene &) = delete;
    MoveScene &operator=(const MoveScene &) = delete;
    std::string storeAt(const std::string &place, const std::string &part) const {
        return scratch / (place + (doubles ? "/._entry" : "/@eaDir/entry@" + part));
    }
    static std::string contentOf(const std::string &path) { return kit::exists(path) ? kit::readFile(path) : ""; }
    bool hasStore(const std::string &place) const {
        return contentOf(storeAt(place, "VexoEAStream")) == store &&
               (doubles || contentOf(storeAt(place, "VexoResource")) == "resource");
    }
    bool isMoved() const { return !kit::exists(source); }
    // Another file goes into the same directory.
    void comesNext() const {
        kit::writeFile(scratch / "other", "o");
        EXPECT_TRUE(move(scratch / "other", scratch / "to/other"));
    }

    const bool doubles;
    kit::ScratchDirectory scratch;
    const std::string source = scratch / "from/entry", destination = scratch / "to/entry";
    const std::string store = stream::bytes({{"comment", "new"}});
};

class MoveSweep : public sweep::Sweep<::testing::TestWithParam<Kind>> {
  protected:
    static std::vector<faults::SystemCall> callsOf(const MoveScene &scene) {
        return watched({}, [&] { return move(scene.source, scene.destination) ? 0 : 1; }).calls;
    }
    static bool killedAt(const MoveScene &scene, size_t at, const std::vector<faults::SystemCall> &calls) {
        return killed(at, calls, [&] { (void)move(scene.source, scene.destination); });
    }
};
INSTANTIATE_TEST_SUITE_P(Kinds, MoveSweep,
                         ::testing::Values(Kind{"File", false, false}, Kind{"Directory", true, false},
                                           Kind{"FileOfDoubles", false, true}, Kind{"DirectoryOfDoubles", true, true}),
                         [](const auto &each) { return std::string(each.param.name); });

TEST_P(MoveSweep, KilledAnywhereTheStoreIsWithItsEntryOnceSomebodyComesNext) {
    KIT_NOT_SANITIZED();
    const MoveScene whole(GetParam());
    const auto calls = callsOf(whole);
    ASSERT_TRUE(whole.isMoved() && whole.hasStore("to"));
    ASSERT_LT(20U, calls.size());
    int finished = 0;
    for (size_t at = 0; at < calls.size(); ++at) {
        const MoveScene scene(GetParam());
        if (!killedAt(scene, at, calls)) {
            break;
        }
        const bool moved = scene.isMoved(), before = moved && !scene.hasStore("to");
        scene.comesNext();
        EXPECT_EQ(moved, scene.isMoved()) << at;
        EXPECT_TRUE(scene.hasStore(moved ? "to" : "from")) << at;
        for (const std::string &name : kit::namesIn(scene.scratch / "to")) {
            EXPECT_FALSE(name.starts_with(".vexofileop-")) << at << ": " << name;
        }
        finished += before ? 1 : 0;
    }
    EXPECT_LT(2, finished);
}

// Whoever runs the same command again finds no source, and leaves the destination whole.
TEST_P(MoveSweep, RunAgainFinishesIt) {
    KIT_NOT_SANITIZED();
    const MoveScene whole(GetParam());
    const auto calls = callsOf(whole);
    for (size_t at = calls.size() / 2; at < calls.size(); at += 2) {
        const MoveScene scene(GetParam());
        if (!killedAt(scene, at, calls)) {
            break;
        }
        (void)move(scene.source, scene.destination);
        EXPECT_TRUE(scene.isMoved() && scene.hasStore("to")) << at;
    }
}

// A file that got the old name meanwhile keeps its store.
TEST_P(MoveSweep, StoreOfAnotherEntryOfTheOldNameIsNotTaken) {
    KIT_NOT_SANITIZED();
    const MoveScene whole(GetParam());
    const auto calls = callsOf(whole);
    for (size_t at = calls.size() / 2; at < calls.size(); at += 3) {
        const MoveScene scene(GetParam());
        if (!killedAt(scene, at, calls)) {
            break;
        }
        if (!scene.isMoved()) {
            continue;
        }
        EXPECT_TRUE(scene.doubles || ::mkdir((scene.scratch / "from/@eaDir").c_str(), 0777) == 0 || errno == EEXIST);
        kit::writeFile(scene.source, "another");
        const std::string stream = scene.storeAt("from", "VexoEAStream");
        kit::writeFile(stream, "another's");
        scene.comesNext();
        EXPECT_EQ("another's", kit::readFile(stream)) << at;
    }
}

// Of a move to another volume. From the note on that the source goes until that is gone again: the same command once
// more finds and removes it, in a directory that it has no other business in.
TEST_P(MoveSweep, AcrossVolumesNoNoteStaysAtTheSource) {
    KIT_NOT_SANITIZED();
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    const auto carried = [&](const MoveScene &scene, const std::string &to, const faults::Plan &plan) {
        return watched(plan, [&] {
            (void)move(scene.source, to);
            return 0;
        });
    };
    int number = 0;
    const auto place = [&] { return volume / ("entry" + std::to_string(++number)); };
    const auto onlyAttributes = [](const MoveScene &scene) {
        EXPECT_TRUE(scene.doubles || ::unlink(scene.storeAt("from", "VexoResource").c_str()) == 0);
    };
    const MoveScene first(GetParam()); // which makes what the others find
    onlyAttributes(first);
    ASSERT_EQ("", told_of_move(first.source, place()).text);
    const MoveScene whole(GetParam());
    onlyAttributes(whole);
    const auto calls = carried(whole, place(), {}).calls;
    ASSERT_TRUE(whole.isMoved());
    // The first thing that is taken away at the source, with the note that comes just before it.
    const auto removal = std::ranges::find_if(calls, [](const auto &call) {
        return (call.number == SYS_unlinkat || call.number == SYS_rmdir) && call.path.ends_with("entry");
    });
    ASSERT_NE(calls.end(), removal);
    int leftBefore = 0, leftAfter = 0; // the entry itself went
    constexpr ptrdiff_t before = 8;
    for (auto at = static_cast<size_t>(removal - calls.begin() - before); at < calls.size(); ++at) {
        const MoveScene scene(GetParam());
        onlyAttributes(scene);
        const std::string to = place();
        if (!carried(scene, to, faults::planAt(faults::Plan::Action::kill, calls, at)).reached) {
            break;
        }
        const auto notesLeft = [&] {
            return std::ranges::count_if(kit::namesIn(scene.scratch / "from"),
                                         [](const std::string &name) { return name.starts_with(".vexofileop-"); });
        };
        (scene.isMoved() ? leftAfter : leftBefore) += notesLeft() > 0 ? 1 : 0;
        (void)move(scene.source, to);
        EXPECT_EQ(0, notesLeft()) << at;
        EXPECT_TRUE(scene.isMoved()) << at;
        const std::string streams = volume / ("@eaDir/entry" + std::to_string(number) + "@VexoEAStream");
        EXPECT_EQ(scene.store, MoveScene::contentOf(streams)) << at;
    }
    EXPECT_LT(0, leftBefore);
    EXPECT_LT(0, leftAfter);
}

// No "@eaDir" is at the source, nor at the destination before the first store is made there.
TEST(FirstStoreInADirectory, OfADoubleIsSeenAtTheCopy) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root makes stores";
    }
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    for (const Operation operation : {Operation::copy, Operation::move}) {
        const MoveScene scene({"", false, true});
        const std::string place = volume / (operation == Operation::move ? "moved" : "copied");
        ASSERT_EQ(0, ::mkdir(place.c_str(), 0755));
        EXPECT_EQ("", sweep::carry({.operation = operation}, scene.source, place + "/entry").text);
        EXPECT_EQ(scene.store, MoveScene::contentOf(place + "/@eaDir/entry@VexoEAStream"));
        EXPECT_EQ(operation == Operation::move, scene.isMoved());
    }
}

} // namespace
