// copy --clone: data are shared where that can be and the switch allows it, always, or never.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/btrfs.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <optional>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::runTool;
using kit::ToolResult;
using Names = std::vector<std::string>;

using kit::mentions;

// Whether the first extent of a file is another file's, too.
bool sharesData(const std::string &path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    alignas(fiemap) unsigned char buffer[sizeof(fiemap) + sizeof(fiemap_extent)] = {};
    auto *const asked = reinterpret_cast<fiemap *>(buffer);
    asked->fm_length = FIEMAP_MAX_OFFSET;
    asked->fm_flags = FIEMAP_FLAG_SYNC;
    asked->fm_extent_count = 1;
    const bool told = fd >= 0 && ::ioctl(fd, FS_IOC_FIEMAP, asked) == 0 && asked->fm_mapped_extents > 0;
    ::close(fd);
    return told && (asked->fm_extents[0].fe_flags & FIEMAP_EXTENT_SHARED) != 0;
}

// By the type of a volume.
class CloneOn : public ::testing::TestWithParam<const char *> {
  protected:
    void SetUp() override {
        try {
            m_etc.emplace(kit::Volume::overlay("/etc"));
            m_volume.emplace(kit::Volume::loop(GetParam(), 320 << 20, "-q"));
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
        root = m_volume->path();
        ASSERT_EQ(0, ::mkdir((root + "/tree").c_str(), 0755));
        kit::writeFile(root + "/tree/file", kit::pattern(1 << 20));
        turn("no");
    }
    static void turn(const char *on) {
        kit::writeFile("/etc/vexoinfo.conf", "support_btrfs=\"yes\"\nreflink_enable=\"" + std::string(on) + "\"\n");
    }
    void expectCopy(const std::string &path, bool shared) const {
        EXPECT_EQ(kit::pattern(1 << 20), kit::readFile(root + path)) << path;
        EXPECT_EQ(shared, sharesData(root + path)) << path;
    }
    std::string root;

  private:
    std::optional<kit::Volume> m_etc, m_volume;
};

TEST_P(CloneOn, SwitchDecidesWhereNothingIsAskedFor) {
    ToolResult result = runTool({"copy", "-r", "-T", root + "/tree", root + "/off"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.out, ", 0 cloned")) << result.out;
    expectCopy("/off/file", false);
    turn("yes");
    const ToolResult planned = runTool({"plan", "copy", "-r", "-T", root + "/tree", root + "/on"});
    EXPECT_TRUE(mentions(planned.out, ", 1 cloned")) << planned.out;
    result = runTool({"copy", "-r", "-T", root + "/tree", root + "/on"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.out, ", 1 cloned")) << result.out;
    expectCopy("/on/file", true);
    result = runTool({"copy", "-v", root + "/tree/file", root + "/one"});
    EXPECT_EQ(root + "/tree/file -> " + root + "/one (cloned)\n", result.out);
    result = runTool({"copy", "--clone=never", "-v", root + "/tree/file", root + "/two"});
    EXPECT_EQ(root + "/tree/file -> " + root + "/two\n", result.out);
    expectCopy("/two", false);
}

TEST_P(CloneOn, AlwaysAsksNoSwitch) {
    EXPECT_EQ(0, runTool({"copy", "-r", "--clone", "-T", root + "/tree", root + "/there"}).status);
    expectCopy("/there/file", true);
    const ToolResult result = runTool({"copy", "-f", "--json", "--clone=always", root + "/tree/file", root + "/there"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.out, R"("cloned":true)")) << result.out;
    EXPECT_EQ(0, runTool({"compare", root + "/tree/file", root + "/there/file"}).status);
}

INSTANTIATE_TEST_SUITE_P(Each, CloneOn, ::testing::Values("btrfs", "xfs"));

class CloneCommand : public ::testing::Test {
  protected:
    kit::ScratchDirectory scratch;
};

TEST_F(CloneCommand, AlwaysThatCannotLeavesEverythingAsItWas) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    kit::writeFile(volume / "file", kit::pattern(9 << 20));
    kit::writeFile(volume / "old", "old");
    for (const char *option : {"--clone", "--clone=always"}) {
        const ToolResult planned = runTool({"plan", "copy", "-f", option, volume / "file", volume / "old"});
        EXPECT_EQ(2, planned.status) << planned.out;
        const ToolResult result = runTool({"copy", "-f", option, volume / "file", volume / "old"});
        EXPECT_EQ(2, result.status);
        EXPECT_TRUE(mentions(result.err, "cannot share its data")) << result.err;
        EXPECT_EQ("old", kit::readFile(volume / "old"));
        EXPECT_EQ((Names{"file", "old"}), kit::namesIn(volume.path()));
    }
    EXPECT_EQ(0, runTool({"copy", "-f", "--clone=auto", volume / "file", volume / "old"}).status);
}

// A volume that has clones, and refuses this one when it is asked for it: a file that is in use for swapping, or one
// whose data are not copied on write.
TEST_F(CloneCommand, AlwaysThatIsRefusedLateLeavesNothing) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", 256 << 20, "-q"));
    ASSERT_EQ(0, ::mkdir((volume / "plain").c_str(), 0755));
    const int directory = ::open((volume / "plain").c_str(), O_RDONLY | O_CLOEXEC);
    int flags = FS_NOCOW_FL;
    ASSERT_EQ(0, ::ioctl(directory, FS_IOC_SETFLAGS, &flags));
    ::close(directory);
    kit::writeFile(volume / "file", kit::pattern(9 << 20));
    const ToolResult result = runTool({"copy", "--clone", volume / "file", volume / "plain"});
    EXPECT_EQ(2, result.status);
    EXPECT_TRUE(mentions(result.err, "cannot share its data")) << result.err;
    EXPECT_EQ(Names{}, kit::namesIn(volume / "plain"));
    EXPECT_EQ(0, runTool({"copy", volume / "file", volume / "plain"}).status);
    EXPECT_EQ(kit::pattern(9 << 20), kit::readFile(volume / "plain/file"));
}

// Moves a file and a tree from the one directory to the other, from which nothing can be renamed there: data are shared
// whatever the switch says, and not where told so. `top`: a directory of the same volume, for somebody who holds them.
void expectMoveSharesUnlessToldNever(const std::string &one, const std::string &two, const std::string &top) {
    struct Row {
        const char *option;
        bool shared;
    };
    for (const Row &row : {Row{"--verbose", true}, Row{"--clone=auto", true}, Row{"--clone=always", true},
                           Row{"--clone=never", false}}) {
        SCOPED_TRACE(row.option);
        ASSERT_EQ(0, ::mkdir((one + "/tree").c_str(), 0755));
        ASSERT_EQ(0, ::mkdir((one + "/tree/sub").c_str(), 0750));
        Names held;
        for (const char *const name : {"/tree/sub/in", "/file"}) {
            kit::writeFile(one + name, kit::pattern(1 << 20));
            // What is shared shows by somebody else who still has it.
            held.push_back(top + "/held" + std::to_string(held.size()));
            ASSERT_EQ(0, runTool({"copy", "--clone", one + name, held.back()}).status);
        }
        ASSERT_NE(0, ::rename((one + "/file").c_str(), (two + "/file").c_str()));
        ASSERT_EQ(EXDEV, errno);
        const ToolResult planned = runTool({"plan", "move", row.option, one + "/file", one + "/tree", two});
        EXPECT_EQ(0, planned.status) << planned.err;
        EXPECT_EQ(row.shared, mentions(planned.out, ", 2 cloned")) << planned.out;
        const ToolResult result = runTool({"move", row.option, one + "/file", one + "/tree", two});
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_EQ(row.shared, mentions(result.out, ", 2 cloned") || mentions(result.out, "/file (cloned)"))
            << result.out;
        for (const char *const name : {"/file", "/tree/sub/in"}) {
            EXPECT_EQ(kit::pattern(1 << 20), kit::readFile(two + name));
            EXPECT_EQ(row.shared, sharesData(two + name)) << name;
        }
        EXPECT_EQ(0750U, kit::statOf(two + "/tree/sub").st_mode & 07777);
        EXPECT_EQ(Names{}, kit::namesIn(one));
        EXPECT_EQ(0, runTool({"remove", "-r", two + "/file", two + "/tree", held[0], held[1]}).status);
    }
}

// Between two subvolumes nothing can be renamed.
TEST_F(CloneCommand, MoveBetweenSubvolumesSharesDataUnlessToldNever) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", 256 << 20, "-q"));
    const int top = ::open(volume.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (const char *name : {"one", "two"}) {
        btrfs_ioctl_vol_args made{};
        std::snprintf(made.name, sizeof made.name, "%s", name);
        ASSERT_EQ(0, ::ioctl(top, BTRFS_IOC_SUBVOL_CREATE, &made));
    }
    ::close(top);
    expectMoveSharesUnlessToldNever(volume / "one", volume / "two", volume.path());
}

// Nor into a directory of another project, whose quota it would pass by, on one XFS.
TEST_F(CloneCommand, MoveBetweenProjectsSharesDataUnlessToldNever) {
    KIT_REQUIRE(volume, kit::Volume::loop("xfs", 320 << 20, "-q"));
    for (const char *const name : {"one", "two"}) {
        ASSERT_EQ(0, ::mkdir((volume / name).c_str(), 0755));
    }
    const int directory = ::open((volume / "two").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    fsxattr settings{};
    ASSERT_EQ(0, ::ioctl(directory, FS_IOC_FSGETXATTR, &settings));
    settings.fsx_xflags |= FS_XFLAG_PROJINHERIT;
    settings.fsx_projid = 17;
    ASSERT_EQ(0, ::ioctl(directory, FS_IOC_FSSETXATTR, &settings));
    ::close(directory);
    expectMoveSharesUnlessToldNever(volume / "one", volume / "two", volume.path());
}

// Nor from one mount of a volume to another one of the same.
TEST_F(CloneCommand, MoveBetweenMountsOfOneVolumeSharesDataUnlessToldNever) {
    KIT_REQUIRE(volume, kit::Volume::loop("xfs", 320 << 20, "-q"));
    for (const char *const name : {"one", "two", "again"}) {
        ASSERT_EQ(0, ::mkdir((volume / name).c_str(), 0755));
    }
    ASSERT_EQ(0, ::mount((volume / "two").c_str(), (volume / "again").c_str(), nullptr, MS_BIND, nullptr));
    expectMoveSharesUnlessToldNever(volume / "one", volume / "again", volume.path());
    ASSERT_EQ(0, ::umount((volume / "again").c_str()));
}

// What is asked to be a clone, and cannot be one between two volumes, stays where it is.
TEST_F(CloneCommand, MoveThatCannotShareKeepsTheSource) {
    KIT_REQUIRE(one, kit::Volume::loop("btrfs", 256 << 20, "-q"));
    KIT_REQUIRE(two, kit::Volume::loop("btrfs", 256 << 20, "-q"));
    ASSERT_EQ(0, ::mkdir((one / "tree").c_str(), 0755));
    kit::writeFile(one / "tree/file", kit::pattern(1 << 20));
    const ToolResult result = runTool({"move", "--clone=always", one / "tree", two.path()});
    EXPECT_EQ(2, result.status);
    EXPECT_TRUE(mentions(result.err, "cannot share its data")) << result.err;
    EXPECT_EQ(kit::pattern(1 << 20), kit::readFile(one / "tree/file"));
    EXPECT_FALSE(kit::exists(two / "tree/file"));
    EXPECT_EQ(0, runTool({"move", one / "tree", two.path()}).status);
    EXPECT_EQ(kit::pattern(1 << 20), kit::readFile(two / "tree/file"));
    EXPECT_FALSE(kit::exists(one / "tree"));
}

TEST_F(CloneCommand, WordIsOneOfThree) {
    kit::writeFile(scratch / "file", "file");
    const ToolResult result = runTool({"copy", "--clone=maybe", scratch / "file", scratch / "copy"});
    EXPECT_EQ(2, result.status);
    EXPECT_TRUE(mentions(result.err, "--clone=maybe: is none of auto, always, never")) << result.err;
    EXPECT_FALSE(kit::exists(scratch / "copy"));
}

} // namespace
