// A tree and a file that are removed, with each system call on the way killed, refused, or met by somebody who puts a
// link where a directory was: the same request again finishes what was stopped, nothing stays under a success, and what
// lies elsewhere stays as it is.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/child.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/tools/engine/sweep.h"
#include "tools/engine/remove/tree_removal.h"
#include "tools/engine/store/private_file.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace engine;

class Silent : public RemovalObserver {
  public:
    bool stopped() const override { return false; }
    void entry(const std::string &, mode_t, Status status, const Problem *problem) override {
        failures += status == Status::failed ? 1 : 0;
        removed += status == Status::done ? 1 : 0;
        said = problem == nullptr ? said : problem->reason;
    }
    bool may_remove(const std::string &, RemovalQuestion) override { return true; }

    int failures = 0, removed = 0;
    std::string said;
};

bool removes(const std::string &path, bool force = false) {
    Silent observer;
    TreeRemoval({.recursive = true, .force = force}, observer).run(path);
    return observer.failures == 0;
}

// ---- Depth

// A directory that holds a file and such a directory, and so on.
void make_chain(const std::string &path, int levels) {
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0755));
    int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < levels; ++level) {
        ::close(::openat(fd, "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        ASSERT_EQ(0, ::mkdirat(fd, "a directory with a long name", 0755));
        const int next = ::openat(fd, "a directory with a long name", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    ::close(fd);
}

TEST(DeepRemoval, TakesAFewDescriptorsAndAPathOfAnyLength) {
    const kit::ScratchDirectory scratch;
    constexpr int levels = 1500;
    make_chain(scratch / "deep", levels);
    EXPECT_TRUE(kit::holdsInChild([&] {
        const rlimit few{24, 24};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &few));
        Silent observer;
        TreeRemoval({.recursive = true}, observer).run(scratch / "deep");
        EXPECT_EQ(0, observer.failures) << observer.said;
        EXPECT_EQ(2 * levels + 1, observer.removed);
    }));
    EXPECT_FALSE(kit::exists(scratch / "deep"));
}

// Moves a directory of the chain to another place once the walk is below it.
class Mover : public Silent {
  public:
    Mover(std::string from, std::string to) : m_from(std::move(from)), m_to(std::move(to)) {}
    bool may_remove(const std::string &path, RemovalQuestion) override {
        if (path.size() > m_from.size() + 300 && !m_to.empty()) {
            EXPECT_EQ(0, ::rename(m_from.c_str(), m_to.c_str()));
            m_to.clear();
        }
        return true;
    }

  private:
    std::string m_from, m_to;
};

TEST(DeepRemoval, FindsTheWayBackFromADirectoryThatWasMovedAway) {
    const kit::ScratchDirectory scratch;
    make_chain(scratch / "deep", 30);
    kit::writeFile(scratch / "precious", "p");
    const std::string inside = scratch / "deep/a directory with a long name/a directory with a long name";
    Mover observer(inside, scratch / "moved");
    TreeRemoval({.recursive = true}, observer).run(scratch / "deep");
    EXPECT_TRUE(kit::exists(scratch / "moved"));
    EXPECT_FALSE(kit::exists(scratch / "deep"));
    EXPECT_EQ("p", kit::readFile(scratch / "precious"));
}

// ---- Each system call

class RemovalSweep : public sweep::Sweep<::testing::Test> {
  protected:
    static void give_store(const std::string &directory, const std::string &name) {
        ::mkdir((directory + "/@eaDir").c_str(), 0777);
        kit::writeFile(directory + "/@eaDir/" + name + "@VexoEAStream", stream::bytes({{"comment", "kept"}}));
    }
    struct Scene {
        Scene() {
            for (const char *name : {"in", "in/tree", "in/tree/sub", "elsewhere", "elsewhere/@eaDir"}) {
                EXPECT_EQ(0, ::mkdir((scratch / name).c_str(), 0777));
            }
            for (const char *name : {"in/tree/one", "in/tree/sub/two", "in/file"}) {
                kit::writeFile(scratch / name, "x");
            }
            give_store(scratch / "in", "tree");
            give_store(scratch / "in", "file");
            give_store(scratch / "in/tree", "one");
            give_store(scratch / "in/tree", "sub");
            give_store(scratch / "in/tree/sub", "two");
            EXPECT_EQ(0, ::mkdir((scratch / "in/tree/@eaDir/one").c_str(), 0777));
            kit::writeFile(scratch / "in/tree/@eaDir/one/preview", "x");
            // What has the same names elsewhere.
            EXPECT_EQ(0, ::mkdir((scratch / "elsewhere/@eaDir/one").c_str(), 0777));
            for (const char *name : {"one", "two", "file", "preview", "@eaDir/one/preview", "@eaDir/one@VexoEAStream",
                                     "@eaDir/two@VexoEAStream", "@eaDir/file@VexoEAStream"}) {
                kit::writeFile(scratch / "elsewhere" + "/" + name, "precious");
            }
        }
        std::string elsewhere() const { return scratch / "elsewhere"; }
        kit::ScratchDirectory scratch;
    };
    // Of the calls; all of them with VEXO_FULL in the environment.
    static size_t step() { return std::getenv("VEXO_FULL") != nullptr ? 1 : 16; }
    static faults::Outcome supervised(const Scene &scene, const faults::Plan &plan) {
        return faults::supervise(plan, [&](faults::Window &window) {
            window.open();
            const bool good = removes(scene.scratch / "in/file") && removes(scene.scratch / "in/tree");
            window.close();
            kit::writeFile(scene.scratch / "told", good ? "good" : "bad");
        });
    }
    static std::vector<faults::SystemCall> calls() {
        const Scene scene;
        std::vector<faults::SystemCall> all = supervised(scene, {}).calls;
        EXPECT_EQ("good", kit::readFile(scene.scratch / "told"));
        return all;
    }
    // Not every run makes the same number of calls.
    void count(const faults::Outcome &outcome) { reached += outcome.reached ? 1 : 0; }

    int reached = 0;
};

TEST_F(RemovalSweep, KilledAnywhereTheSameAgainRemovesWhatIsLeft) {
    KIT_NOT_SANITIZED();
    const auto all = calls();
    for (size_t at = 0; at < all.size(); at += std::min<size_t>(step(), 4)) {
        const Scene scene;
        count(supervised(scene, faults::planAt(faults::Plan::Action::kill, all, at)));
        EXPECT_TRUE(removes(scene.scratch / "in/file", true)) << at;
        EXPECT_TRUE(removes(scene.scratch / "in/tree", true)) << at;
        EXPECT_EQ(std::vector<std::string>(), kit::namesIn(scene.scratch / "in")) << at;
    }
    EXPECT_LT(40, reached);
}

TEST_F(RemovalSweep, RefusedAnywhereNothingStaysUnderASuccess) {
    KIT_NOT_SANITIZED();
    const auto all = calls();
    for (size_t at = 0; at < all.size(); at += std::min<size_t>(step(), 4)) {
        for (const int error : faults::plausibleErrors(all[at])) {
            if (error == ENOENT) { // of something that is there: nobody can guard against a file system that says so
                continue;
            }
            const Scene scene;
            const auto outcome = supervised(scene, faults::planAt(faults::Plan::Action::fail, all, at, error));
            count(outcome);
            if (kit::readFile(scene.scratch / "told") == "good") {
                const std::string where =
                    faults::nameOf(all[at]) + " " + all[at].path + ", error " + std::to_string(error);
                for (const char *name : {"tree", "file", "@eaDir/tree@VexoEAStream", "@eaDir/file@VexoEAStream"}) {
                    EXPECT_FALSE(kit::exists(scene.scratch / "in" + "/" + name)) << name << " stays: " << where;
                }
            }
        }
    }
    EXPECT_LT(50, reached);
}

TEST_F(RemovalSweep, LinkInPlaceOfADirectoryLeadsNowhere) {
    KIT_NOT_SANITIZED();
    const size_t all = calls().size();
    size_t first = 0;
    for (const char *place : {"in/tree/sub", "in/tree", "in/@eaDir", "in/tree/@eaDir", "in/tree/sub/@eaDir",
                              "in/tree/@eaDir/one", "in/tree/one", "in/file"}) {
        for (size_t at = first++ * 3 % step(); at < all; at += step()) {
            const Scene scene;
            const std::string named = scene.scratch / place, aside = scene.scratch / "aside";
            const std::string target = std::string(place).ends_with("@eaDir")  ? scene.elsewhere() + "/@eaDir"
                                       : std::string(place).ends_with("/file") ? scene.elsewhere() + "/file"
                                                                               : scene.elsewhere();
            const auto before = kit::Fingerprint::of(scene.elsewhere());
            const auto exchange = [&] {
                (void)::rename(named.c_str(), aside.c_str()); // gone already where it has been removed
                (void)::symlink(target.c_str(), named.c_str());
            };
            count(supervised(scene, {.action = faults::Plan::Action::meet, .at = at, .meeting = exchange}));
            EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(scene.elsewhere()), {"accessed"}))
                << place << " at " << at;
        }
    }
    EXPECT_LT(80, reached);
}

TEST_F(RemovalSweep, WhatSomebodyElseRemovesMeanwhileIsNoFailure) {
    KIT_NOT_SANITIZED();
    const auto all = calls();
    for (const char *place : {"in/tree/sub", "in/tree/@eaDir", "in/tree/one"}) {
        for (size_t at = 0; at < all.size(); at += step()) {
            const Scene scene;
            const auto remove = [&] { std::filesystem::remove_all(scene.scratch / place); };
            count(supervised(scene, {.action = faults::Plan::Action::meet, .at = at, .meeting = remove}));
            const std::string where = std::string(place) + " before " + faults::nameOf(all[at]) + " " + all[at].path;
            EXPECT_EQ("good", kit::readFile(scene.scratch / "told")) << where;
            EXPECT_EQ(std::vector<std::string>(), kit::namesIn(scene.scratch / "in")) << where;
        }
    }
    EXPECT_LT(30, reached);
}

// ---- What was left

TEST_F(RemovalSweep, EntryThatIsGoneHasItsStoreRemovedAndSaysSo) {
    const kit::ScratchDirectory scratch;
    give_store(scratch.path(), "gone");
    Silent observer;
    TreeRemoval removal({}, observer);
    removal.run(scratch / "gone");
    EXPECT_EQ(0, observer.failures);
    EXPECT_EQ(1, observer.removed);
    EXPECT_EQ("was gone already; what was kept beside it is removed", observer.said);
    EXPECT_FALSE(kit::exists(scratch / "@eaDir"));
    removal.run(scratch / "gone");
    EXPECT_EQ(1, observer.failures);
}

// Of a "._" file its first bytes say that it is one.
TEST_F(RemovalSweep, EntryThatIsGoneHasItsDoubleRemovedAndSaysSo) {
    const kit::ScratchDirectory scratch;
    ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=0").c_str(), 1);
    kit::writeFile(scratch / "._gone", stream::bytes({{"comment", "kept"}}));
    kit::writeFile(scratch / "._own", "of a user, who calls it so");
    Silent observer;
    TreeRemoval removal({}, observer);
    removal.run(scratch / "own");
    EXPECT_EQ(1, observer.failures);
    removal.run(scratch / "gone");
    ::unsetenv("VEXOFILEOP_FSTYPES");
    EXPECT_EQ(1, observer.failures);
    EXPECT_EQ("was gone already; what was kept beside it is removed", observer.said);
    EXPECT_EQ((std::vector<std::string>{"._own"}), kit::namesIn(scratch.path()));
}

TEST_F(RemovalSweep, PlantedLinksAndPipesInPlaceOfStoresGoThemselves) {
    const Scene scene;
    const auto before = kit::Fingerprint::of(scene.elsewhere());
    const std::string tree = scene.scratch / "planted";
    for (const char *name : {"", "/sub", "/pipe", "/pipe/@eaDir"}) {
        ASSERT_EQ(0, ::mkdir((tree + name).c_str(), 0777));
    }
    for (const char *name : {"/one", "/sub/one", "/pipe/one", "/pipe/two"}) {
        kit::writeFile(tree + name, "x");
    }
    ASSERT_EQ(0, ::symlink((scene.elsewhere() + "/@eaDir").c_str(), (tree + "/@eaDir").c_str()));
    ASSERT_EQ(0, ::mkdir((tree + "/sub/@eaDir").c_str(), 0777));
    ASSERT_EQ(0, ::symlink((scene.elsewhere() + "/@eaDir/one").c_str(), (tree + "/sub/@eaDir/one").c_str()));
    ASSERT_EQ(0, ::mkfifo((tree + "/pipe/@eaDir/one").c_str(), 0666));
    ASSERT_EQ(0, ::mkfifo((tree + "/pipe/@eaDir/two@VexoEAStream").c_str(), 0666));
    EXPECT_TRUE(removes(tree + "/one"));
    EXPECT_TRUE(removes(tree));
    EXPECT_FALSE(kit::exists(tree));
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(scene.elsewhere()), {"accessed"}));
}

TEST_F(RemovalSweep, WhatAKilledChangeOfItsStoreHasLeftGoes) {
    const kit::ScratchDirectory scratch;
    kit::writeFile(scratch / "file", "x");
    kit::writeFile(scratch / "other", "x");
    give_store(scratch.path(), "file");
    const std::string standIn = private_name_for("file");
    kit::writeFile(scratch / standIn, "");
    give_store(scratch.path(), standIn);
    for (const char *store : {"file@VexoEAStream", "file@VexoResource", "other@VexoEAStream"}) {
        kit::writeFile(scratch / "@eaDir" + "/" + private_name_for(store), "half");
    }
    const int used =
        ::open((scratch / "@eaDir/" + private_name_for("file@VexoResource")).c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, ::flock(used, LOCK_EX | LOCK_NB)); // as who works on it
    EXPECT_TRUE(removes(scratch / "file"));
    std::vector<std::string> left = {private_name_for("file@VexoResource"), private_name_for("other@VexoEAStream")};
    std::ranges::sort(left);
    EXPECT_EQ(left, kit::namesIn(scratch / "@eaDir"));
    EXPECT_EQ((std::vector<std::string>{"@eaDir", "other"}), kit::namesIn(scratch.path()));
    ::close(used);
    EXPECT_FALSE(removes(scratch / "file")) << "it is gone";
    EXPECT_TRUE(removes(scratch / "other"));
    EXPECT_EQ(std::vector<std::string>(), kit::namesIn(scratch.path()));
}

TEST_F(RemovalSweep, WhatAKilledCopyHasLeftBesideItGoes) {
    const kit::ScratchDirectory scratch;
    Maker dead = own_maker();
    dead.process = 4'194'304; // above every process number
    const std::string running = next_private_name();
    kit::writeFile(scratch / "file", "x");
    kit::writeFile(scratch / private_name(dead, 1), "half a copy");
    kit::writeFile(scratch / running, "a copy under way");
    EXPECT_TRUE(removes(scratch / "file"));
    EXPECT_EQ(std::vector<std::string>{running}, kit::namesIn(scratch.path()));
}

} // namespace
