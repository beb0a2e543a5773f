// vexofileop mirror with the options that say how entries are carried, and what is removed kept as a backup.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using kit::mentions;
using kit::runTool;
using kit::ToolResult;

class MirrorWays : public ::testing::Test {
  protected:
    using Names = std::vector<std::string>;

    void SetUp() override {
        for (const char *directory : {"tree", "tree/in", "copy", "copy/gone", "copy/gone/deep", "copy/was"}) {
            ASSERT_EQ(0, ::mkdir((scratch / directory).c_str(), 0755));
        }
        kit::writeFile(tree + "/one", "one");
        kit::writeFile(tree + "/was", "was a directory");
        kit::writeFile(tree + "/in/two", "two");
        kit::writeFile(copy + "/one", "older");
        kit::writeFile(copy + "/extra", "extra");
        kit::writeFile(copy + "/gone/deep/old", "old");
        kit::writeFile(copy + "/was/inside", "inside");
    }
    ToolResult mirror(kit::Arguments options, bool plan = false) const {
        kit::Arguments all{"mirror"};
        if (plan) {
            all.insert(all.begin(), "plan");
        } else {
            all.emplace_back("-f");
        }
        all.insert(all.end(), options.begin(), options.end());
        all.insert(all.end(), {tree, copy});
        return runTool(all);
    }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", copy = scratch / "copy";
};

TEST_F(MirrorWays, BackupDirectoryBelowTheDestinationKeepsWhatGoesAndStays) {
    const ToolResult planned = mirror({"--backup-dir", "kept"}, true);
    EXPECT_EQ(0, planned.status) << planned.err;
    EXPECT_TRUE(mentions(planned.out, "remove: " + copy + "/extra (backup: " + copy + "/kept/extra)\n")) << planned.out;
    EXPECT_EQ((Names{"extra", "gone", "one", "was"}), kit::namesIn(copy));
    const ToolResult result = mirror({"-v", "--backup-dir", "kept"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.out, "removed: " + copy + "/was/inside (backup: " + copy + "/kept/was/inside)\n"));
    EXPECT_TRUE(mentions(result.out, ", 4 backed up, 6 removed\n")) << result.out;
    EXPECT_EQ((Names{"in", "kept", "one", "was"}), kit::namesIn(copy));
    EXPECT_EQ("older", kit::readFile(copy + "/kept/one"));
    EXPECT_EQ("extra", kit::readFile(copy + "/kept/extra"));
    EXPECT_EQ("old", kit::readFile(copy + "/kept/gone/deep/old"));
    EXPECT_EQ("inside", kit::readFile(copy + "/kept/was/inside"));
    for (const bool plan : {true, false}) {
        const ToolResult again = mirror({"--backup-dir", "kept"}, plan);
        EXPECT_EQ(0, again.status) << again.err;
        EXPECT_TRUE(mentions(again.out, ", 0 removed")) << again.out;
    }
    EXPECT_EQ("inside", kit::readFile(copy + "/kept/was/inside"));
}

TEST_F(MirrorWays, BackupDirectoryStaysUnderAnotherNameAndInADirectoryThatGoes) {
    // Reached through a link, and in a directory that the source has not.
    ASSERT_EQ(0, ::mkdir((copy + "/gone/kept").c_str(), 0755));
    kit::writeFile(copy + "/gone/kept/before", "before");
    ASSERT_EQ(0, ::symlink("copy/gone/kept", (scratch / "link").c_str()));
    EXPECT_EQ(0, mirror({"--backup-dir", scratch / "link"}).status);
    EXPECT_EQ((Names{"kept"}), kit::namesIn(copy + "/gone"));
    EXPECT_EQ("before", kit::readFile(copy + "/gone/kept/before"));
    EXPECT_EQ("old", kit::readFile(copy + "/gone/kept/gone/deep/old"));
    // One that the source has, too, by its name.
    ASSERT_EQ(0, ::mkdir((tree + "/gone").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((tree + "/gone/kept").c_str(), 0755));
    EXPECT_EQ(0, mirror({"--backup-dir", "gone/kept"}).status);
    EXPECT_EQ("before", kit::readFile(copy + "/gone/kept/before"));
}

TEST_F(MirrorWays, DirectoryOfBackupsThatIsToBeMadeKeepsItsParent) {
    for (const bool plan : {true, false}) {
        const ToolResult result = mirror({"-v", "--backup-dir", "gone/kept"}, plan);
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_TRUE(mentions(result.out, ", 5 removed")) << result.out;
        EXPECT_FALSE(mentions(result.out, copy + "/gone\n")) << result.out;
    }
    EXPECT_EQ("old", kit::readFile(copy + "/gone/kept/gone/deep/old"));
}

TEST_F(MirrorWays, SuffixKeepsWhatGoesBesideAndOlderBackupsStay) {
    const ToolResult planned = mirror({"--backup"}, true);
    const ToolResult result = mirror({"--backup"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(planned.out, ", 3 removed; ")) << planned.out;
    EXPECT_TRUE(mentions(result.out, ", 4 backed up, 3 removed\n")) << result.out;
    EXPECT_EQ((Names{"extra~", "gone", "in", "one", "one~", "was", "was~"}), kit::namesIn(copy));
    EXPECT_EQ((Names{"old~"}), kit::namesIn(copy + "/gone/deep"));
    EXPECT_EQ("inside", kit::readFile(copy + "/was~/inside"));
    EXPECT_EQ("was a directory", kit::readFile(copy + "/was"));
    EXPECT_TRUE(mentions(mirror({"--backup"}).out, ", 0 backed up, 0 removed\n"));
    EXPECT_EQ((Names{"old~"}), kit::namesIn(copy + "/gone/deep"));
    // Without the option they are what the source has not.
    EXPECT_EQ(0, mirror({}).status);
    EXPECT_EQ((Names{"in", "one", "was"}), kit::namesIn(copy));
}

TEST_F(MirrorWays, BackupDoesNotTakeThePlaceOfWhatTheSourceHas) {
    kit::writeFile(tree + "/extra~", "of the source");
    for (const bool plan : {true, false}) {
        const ToolResult result = mirror({"--backup"}, plan);
        EXPECT_EQ(1, result.status);
        EXPECT_EQ(!plan, kit::exists(copy + "/extra~"));
    }
    EXPECT_EQ("of the source", kit::readFile(copy + "/extra~"));
    EXPECT_EQ("extra", kit::readFile(copy + "/extra"));
    for (const std::string &directory : {tree, tree + "/in", scratch.path(), copy, std::string("."), copy + "/.."}) {
        const ToolResult refused = mirror({"--backup-dir", directory});
        EXPECT_EQ(2, refused.status) << directory;
        EXPECT_TRUE(mentions(refused.err, "--backup-dir: ")) << refused.err;
    }
    EXPECT_EQ("one", kit::readFile(tree + "/one"));
}

TEST_F(MirrorWays, StoreGoesWithWhatIsKept) {
    KIT_NEEDS_TO_MAKE_STORES();
    ASSERT_EQ(0, runTool({"ea", "set", copy + "/extra", "note", "of the extra"}).status);
    ASSERT_EQ(0, runTool({"ea", "set", copy + "/gone/deep/old", "note", "of the old"}).status);
    EXPECT_EQ(0, mirror({"--backup-dir", scratch / "kept"}).status);
    EXPECT_EQ("of the extra", runTool({"ea", "get", scratch / "kept/extra", "note"}).out);
    EXPECT_EQ("of the old", runTool({"ea", "get", scratch / "kept/gone/deep/old", "note"}).out);
    EXPECT_EQ(0, runTool({"compare", tree, copy}).status);
}

TEST_F(MirrorWays, WhatBelongsToNoEntryStaysWhereItCannotBeKept) {
    KIT_NEEDS_TO_MAKE_STORES();
    for (const std::string &file : {copy + "/extra", copy + "/gone/deep/old"}) {
        ASSERT_EQ(0, runTool({"ea", "set", file, "note", "left alone"}).status);
        ASSERT_EQ(0, ::unlink(file.c_str()));
    }
    const ToolResult result = mirror({"--backup-dir", scratch / "kept"});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "belongs to no entry")) << result.err;
    EXPECT_TRUE(kit::exists(copy + "/@eaDir/extra@VexoEAStream"));
    EXPECT_TRUE(kit::exists(copy + "/gone/deep/@eaDir/old@VexoEAStream"));
    EXPECT_EQ(0, mirror({}).status);
    EXPECT_FALSE(kit::exists(copy + "/gone"));
}

TEST_F(MirrorWays, WhatCannotBeKeptIsNotRemoved) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, ::unlink((copy + "/one").c_str()));
    for (const bool plan : {true, false}) {
        const ToolResult result = mirror({"--backup-dir", volume / "kept"}, plan);
        EXPECT_NE(0, result.status);
        EXPECT_TRUE(mentions(result.err, "is on another volume")) << result.err;
        EXPECT_TRUE(mentions(result.out, ", 0 removed")) << result.out;
    }
    EXPECT_EQ("extra", kit::readFile(copy + "/extra"));
    EXPECT_EQ("old", kit::readFile(copy + "/gone/deep/old"));
}

TEST_F(MirrorWays, TakesTheOptionsOfACopy) {
    const ToolResult result = mirror({"--json", "--sync=volume", "--bwlimit", "10M", "--retry", "2", "--clone=never",
                                      "--verify", "-x", "--accept", "modification-time"});
    EXPECT_EQ(0, result.status) << result.err;
    // Once for the copies, and again for what has become equal after the removals.
    size_t written = 0;
    for (size_t at = 0;
         (at = result.out.find(R"("event":"sync","operation":"copy","status":"done")", at)) != std::string::npos;
         ++at) {
        ++written;
    }
    EXPECT_EQ(3U, written) << result.out;
    EXPECT_EQ(0, runTool({"compare", tree, copy}).status);
    EXPECT_EQ(2, mirror({"--clone=maybe"}).status);
}

TEST_F(MirrorWays, NothingIsRemovedWhereNothingCanBeCloned) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, ::mkdir((volume / "copy").c_str(), 0755));
    kit::writeFile(volume / "copy/extra", "extra");
    const ToolResult result = runTool({"mirror", "-f", "--clone", tree, volume / "copy"});
    EXPECT_EQ(2, result.status) << result.out;
    EXPECT_TRUE(mentions(result.err, "nothing is removed, for not everything was copied\n")) << result.err;
    EXPECT_EQ((Names{"extra", "in"}), kit::namesIn(volume / "copy"));
}

} // namespace
