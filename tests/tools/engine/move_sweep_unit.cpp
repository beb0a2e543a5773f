// A file that is moved within its volume, killed before each system call: it has its store at the old place or at the
// new one, once somebody comes next.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/tools/engine/sweep.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace engine;

bool move(const std::string &source, const std::string &destination) {
    return sweep::carry({.operation = Operation::move, .conflict = Conflict::replace, .trees = true}, source,
                        destination)
        .good;
}

// `entry` is a file, or a directory with one.
struct Scene {
    explicit Scene(bool directory) {
        for (const char *name : {"from", "to"}) {
            EXPECT_EQ(0, ::mkdir((scratch / name).c_str(), 0755));
            EXPECT_EQ(0, ::mkdir((scratch / name + "/@eaDir").c_str(), 0777));
        }
        if (directory) {
            EXPECT_EQ(0, ::mkdir(source.c_str(), 0755));
        } else {
            kit::writeFile(source, "new");
            kit::writeFile(destination, "old");
            kit::writeFile(storeAt("to", "VexoEAStream"), stream::bytes({{"comment", "old"}}));
            kit::writeFile(storeAt("to", "VexoResource"), "old resource");
        }
        kit::writeFile(storeAt("from", "VexoEAStream"), store);
        kit::writeFile(storeAt("from", "VexoResource"), "resource");
    }
    std::string storeAt(const std::string &place, const std::string &part) const {
        return scratch / (place + "/@eaDir/entry@" + part);
    }
    static std::string contentOf(const std::string &path) { return kit::exists(path) ? kit::readFile(path) : ""; }
    bool hasStore(const std::string &place) const {
        return contentOf(storeAt(place, "VexoEAStream")) == store &&
               contentOf(storeAt(place, "VexoResource")) == "resource";
    }
    bool isMoved() const { return !kit::exists(source); }
    // Another file goes into the same directory.
    void comesNext() const {
        kit::writeFile(scratch / "other", "o");
        EXPECT_TRUE(move(scratch / "other", scratch / "to/other"));
    }

    kit::ScratchDirectory scratch;
    const std::string source = scratch / "from/entry", destination = scratch / "to/entry";
    const std::string store = stream::bytes({{"comment", "new"}});
};

class MoveSweep : public sweep::Sweep<::testing::TestWithParam<bool>> {
  protected:
    static size_t callsOf(const Scene &scene) {
        return watched({}, [&] { return move(scene.source, scene.destination) ? 0 : 1; }).calls.size();
    }
    static bool killedAt(const Scene &scene, size_t at, size_t calls) {
        return killed(at, calls, [&] { (void)move(scene.source, scene.destination); });
    }
};
INSTANTIATE_TEST_SUITE_P(Kinds, MoveSweep, ::testing::Bool(),
                         [](const auto &each) { return each.param ? "Directory" : "File"; });

TEST_P(MoveSweep, KilledAnywhereTheStoreIsWithItsEntryOnceSomebodyComesNext) {
    KIT_NOT_SANITIZED();
    const Scene whole(GetParam());
    const size_t calls = callsOf(whole);
    ASSERT_TRUE(whole.isMoved() && whole.hasStore("to"));
    ASSERT_LT(20U, calls);
    int finished = 0;
    for (size_t at = 0; at < calls; ++at) {
        const Scene scene(GetParam());
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
    const Scene whole(GetParam());
    const size_t calls = callsOf(whole);
    for (size_t at = calls / 2; at < calls; at += 2) {
        const Scene scene(GetParam());
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
    const Scene whole(GetParam());
    const size_t calls = callsOf(whole);
    for (size_t at = calls / 2; at < calls; at += 3) {
        const Scene scene(GetParam());
        if (!killedAt(scene, at, calls)) {
            break;
        }
        if (!scene.isMoved()) {
            continue;
        }
        ::mkdir((scene.scratch / "from/@eaDir").c_str(), 0777);
        kit::writeFile(scene.source, "another");
        const std::string stream = scene.storeAt("from", "VexoEAStream");
        kit::writeFile(stream, "another's");
        scene.comesNext();
        EXPECT_EQ("another's", kit::readFile(stream)) << at;
    }
}

} // namespace
