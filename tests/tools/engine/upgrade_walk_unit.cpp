// The walk that converts a tree of stores of the old layout: it goes as deep as there is something, and stays in its
// tree when somebody exchanges a directory.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/scratch.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/store_upgrade.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace engine;

class UpgradeTree : public ::testing::Test {
  protected:
    void SetUp() override { KIT_NEEDS_TO_MAKE_STORES(); }
    // A file with an attribute in a file of its own.
    static void make_old(const std::string &directory) {
        for (const char *name : {"", "/@eaDir", "/@eaDir/file"}) {
            ASSERT_EQ(0, ::mkdir((directory + name).c_str(), 0777));
        }
        kit::writeFile(directory + "/file", "x");
        kit::writeFile(directory + "/@eaDir/file/comment", "kept");
    }
    static UpgradeWalk walk(std::function<void(const std::string &)> before) {
        return {.visit =
                    [before](const std::string &path, const std::string &held) {
                        before(path);
                        for (const std::string &store : old_stores(held)) {
                            EXPECT_EQ("", upgrade_store(held, store).reason) << path;
                        }
                    },
                .unreadable = [](const std::string &path) { ADD_FAILURE() << path << ": " << errno; },
                .stopped = [] { return false; }};
    }
    kit::ScratchDirectory scratch;
};

TEST_F(UpgradeTree, LinkInPlaceOfADirectoryLeadsNowhere) {
    ASSERT_EQ(0, ::mkdir((scratch / "tree").c_str(), 0755));
    make_old(scratch / "tree/sub");
    make_old(scratch / "elsewhere");
    const auto elsewhere = kit::Fingerprint::of(scratch / "elsewhere");
    bool exchanged = false;
    walk_for_upgrade(HeldEntry(scratch / "tree"), walk([&](const std::string &path) {
                         if (path == scratch / "tree/sub/file") {
                             ASSERT_EQ(0, ::rename((scratch / "tree/sub").c_str(), (scratch / "tree/aside").c_str()));
                             ASSERT_EQ(0, ::symlink((scratch / "elsewhere").c_str(), (scratch / "tree/sub").c_str()));
                             exchanged = true;
                         }
                     }));
    EXPECT_TRUE(exchanged);
    EXPECT_EQ("", elsewhere.differenceTo(kit::Fingerprint::of(scratch / "elsewhere"), {"accessed"}));
    EXPECT_EQ(stream::bytes({{"comment", "kept"}}), kit::readFile(scratch / "tree/aside/@eaDir/file@VexoEAStream"));
}

TEST_F(UpgradeTree, AnyDepthTakesAFewDescriptors) {
    constexpr int levels = 1000;
    const std::string top = scratch / "tree";
    ASSERT_EQ(0, ::mkdir(top.c_str(), 0755));
    int fd = ::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < levels; ++level) {
        ASSERT_EQ(0, ::mkdirat(fd, "directory", 0755));
        const int next = ::openat(fd, "directory", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    ::close(::openat(fd, "last", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    ::close(fd);
    EXPECT_TRUE(kit::holdsInChild([&] {
        const rlimit few{24, 24};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &few));
        int seen = 0;
        bool last = false;
        walk_for_upgrade(HeldEntry(top), walk([&](const std::string &path) {
                             ++seen;
                             last = last || path.ends_with("/last");
                         }));
        EXPECT_EQ(levels + 1, seen);
        EXPECT_TRUE(last);
    }));
}

} // namespace
