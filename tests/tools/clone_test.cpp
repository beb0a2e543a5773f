// copy --clone: data are shared where that can be and the switch allows it, always, or never.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/btrfs.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <optional>
#include <string>
#include <sys/ioctl.h>
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

// Between two subvolumes nothing can be renamed. A move shares data whatever the switch says, and not where told so.
TEST_F(CloneCommand, MoveBetweenSubvolumesSharesDataUnlessToldNever) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", 256 << 20, "-q"));
    const int top = ::open(volume.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (const char *name : {"one", "two"}) {
        btrfs_ioctl_vol_args made{};
        std::snprintf(made.name, sizeof made.name, "%s", name);
        ASSERT_EQ(0, ::ioctl(top, BTRFS_IOC_SUBVOL_CREATE, &made));
    }
    ::close(top);
    struct Row {
        const char *option;
        bool shared;
    };
    for (const Row &row : {Row{"--verbose", true}, Row{"--clone=auto", true}, Row{"--clone=always", true},
                           Row{"--clone=never", false}}) {
        ASSERT_EQ(0, ::mkdir((volume / "one/tree").c_str(), 0755));
        for (const char *name : {"one/tree/in", "one/file"}) {
            kit::writeFile(volume / name, kit::pattern(1 << 20));
            // What is shared shows by somebody else who still has it.
            ASSERT_EQ(0, runTool({"copy", "--clone", volume / name, volume / name + ".held"}).status);
        }
        ASSERT_EQ(0, ::rename((volume / "one/tree/in.held").c_str(), (volume / "one/in.held").c_str()));
        const ToolResult result =
            runTool({"move", row.option, volume / "one/file", volume / "one/tree", volume / "two"});
        EXPECT_EQ(0, result.status) << result.err;
        for (const char *name : {"two/file", "two/tree/in"}) {
            EXPECT_EQ(kit::pattern(1 << 20), kit::readFile(volume / name));
            EXPECT_EQ(row.shared, sharesData(volume / name)) << row.option << " " << name;
        }
        EXPECT_EQ((Names{"file.held", "in.held"}), kit::namesIn(volume / "one"));
        EXPECT_EQ(0, runTool({"remove", "-r", volume / "two/file", volume / "two/tree", volume / "one/file.held",
                              volume / "one/in.held"})
                         .status);
    }
}

TEST_F(CloneCommand, WordIsOneOfThree) {
    kit::writeFile(scratch / "file", "file");
    const ToolResult result = runTool({"copy", "--clone=maybe", scratch / "file", scratch / "copy"});
    EXPECT_EQ(2, result.status);
    EXPECT_TRUE(mentions(result.err, "--clone=maybe: is none of auto, always, never")) << result.err;
    EXPECT_FALSE(kit::exists(scratch / "copy"));
}

} // namespace
