// Commands in trees that are deeper than a path can be long, and than a process may have files open.
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::runTool;
using kit::ToolResult;

constexpr int kLevels = 1500;
constexpr rlim_t kDescriptors = 128;

// Levels "ab/ab/…", with a file in the last one.
void makeDeep(const std::string &top) {
    ASSERT_EQ(0, ::mkdir(top.c_str(), 0755));
    int fd = ::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < kLevels; ++level) {
        ASSERT_EQ(0, ::mkdirat(fd, "ab", 0755));
        const int next = ::openat(fd, "ab", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    const int file = ::openat(fd, "last", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    EXPECT_EQ(4, ::write(file, "data", 4));
    ::close(file);
    ::close(fd);
}

bool isWhole(const std::string &top) {
    int fd = ::open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < kLevels && fd >= 0; ++level) {
        const int next = ::openat(fd, "ab", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    struct stat found {};
    const bool whole = fd >= 0 && ::fstatat(fd, "last", &found, AT_SYMLINK_NOFOLLOW) == 0 && found.st_size == 4;
    ::close(fd);
    return whole;
}

class DeepTrees : public testing::Test {
  protected:
    void SetUp() override {
        try {
            volume.emplace(kit::Volume::tmpfs(64 << 20));
            other.emplace(kit::Volume::tmpfs(64 << 20));
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
        tree = *volume / "tree";
        copy = *volume / "copy";
        moved = *other / "moved";
    }
    // With few files open at once.
    static void expect(int status, const kit::Arguments &arguments) {
        EXPECT_TRUE(kit::holdsInChild([&] {
            const rlimit few{kDescriptors, kDescriptors};
            ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &few));
            const ToolResult result = runTool(arguments);
            EXPECT_EQ(status, result.status) << arguments.front() << ": " << result.err.substr(0, 300);
        }));
    }
    std::optional<kit::Volume> volume, other;
    std::string tree, copy, moved;
};

TEST_F(DeepTrees, ArePlannedCopiedComparedAndRemoved) {
    makeDeep(tree);
    expect(0, {"plan", "copy", "-r", tree, copy});
    expect(0, {"copy", "-r", tree, copy});
    EXPECT_TRUE(isWhole(tree) && isWhole(copy));
    expect(0, {"compare", tree, copy});
    expect(0, {"remove", "-r", copy});
    EXPECT_FALSE(kit::exists(copy));
}

TEST_F(DeepTrees, AreRelocatedAndReplaceOthers) {
    makeDeep(tree);
    makeDeep(copy);
    expect(0, {"relocate", "-y", tree, copy});
    EXPECT_TRUE(isWhole(copy));
    EXPECT_FALSE(kit::exists(tree));
    EXPECT_EQ(std::vector<std::string>{"copy"}, kit::namesIn(volume->path()));
}

TEST_F(DeepTrees, AreMovedToAnotherVolume) {
    makeDeep(tree);
    expect(0, {"plan", "move", tree, moved});
    expect(0, {"move", tree, moved});
    EXPECT_TRUE(isWhole(moved));
    EXPECT_FALSE(kit::exists(tree));
    expect(0, {"relocate", "-y", moved, tree});
    EXPECT_TRUE(isWhole(tree));
    EXPECT_FALSE(kit::exists(moved));
}

// As another one would be of so many levels that no stack is large enough.
TEST_F(DeepTrees, DeeperThanTheStackIsToldAndStays) {
    makeDeep(tree);
    makeDeep(*other / "same");
    for (const kit::Arguments &arguments : {kit::Arguments{"plan", "move", tree, moved},
                                            {"copy", "-r", tree, copy},
                                            {"compare", tree, *other / "same"},
                                            {"move", tree, moved},
                                            {"move", tree, moved}}) {
        EXPECT_TRUE(kit::holdsInChild([&] {
            const rlimit little{1600 << 10, 1600 << 10};
            ASSERT_EQ(0, ::setrlimit(RLIMIT_STACK, &little));
            const ToolResult result = runTool(arguments);
            EXPECT_TRUE(result.status == 1 || result.status == 2) << arguments.front() << ": " << result.status;
            EXPECT_TRUE(kit::mentions(result.out + result.err, "lies too deep")) << arguments.front();
        }));
        EXPECT_TRUE(isWhole(tree)) << arguments.front();
    }
}

// Else the copy would be copied into itself until nothing is left to make it in.
TEST_F(DeepTrees, CopyThatIsMountedInItsSourceIsNotCopied) {
    for (const char *directory : {"tree", "tree/mount", "there"}) {
        ASSERT_EQ(0, ::mkdir((*volume / directory).c_str(), 0755));
    }
    kit::writeFile(tree + "/file", "f");
    kit::writeFile(*volume / "there/other", "o");
    ASSERT_EQ(0, ::mount((*volume / "there").c_str(), (tree + "/mount").c_str(), nullptr, MS_BIND, nullptr));
    const ToolResult result = runTool({"copy", "-r", tree, *volume / "there"});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(kit::mentions(result.err, "mounted in the source")) << result.err.substr(0, 300);
    EXPECT_EQ("f", kit::readFile(*volume / "there/tree/file"));
    EXPECT_EQ("o", kit::readFile(*volume / "there/tree/mount/other"));
    EXPECT_FALSE(kit::exists(*volume / "there/tree/mount/tree"));
    EXPECT_EQ(0, ::umount((tree + "/mount").c_str()));
}

} // namespace
