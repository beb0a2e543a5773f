// --backup and --backup-dir: what is replaced is kept, with what is kept for it.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::runTool;
using kit::ToolResult;
using Names = std::vector<std::string>;

using kit::mentions;

class Backup : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *directory : {"tree", "tree/in", "to", "to/tree", "to/tree/in"}) {
            ASSERT_EQ(0, ::mkdir((scratch / directory).c_str(), 0755));
        }
        kit::writeFile(scratch / "tree/in/file", "new");
        kit::writeFile(scratch / "to/tree/in/file", "older");
    }
    ToolResult run(const kit::Arguments &arguments) const { return runTool(arguments, {.directory = scratch.path()}); }

    kit::ScratchDirectory scratch;
};

TEST_F(Backup, OldFileStaysUnderItsNameWithTheSuffix) {
    const ToolResult planned = run({"plan", "copy", "-rf", "--backup", "tree", "to"});
    EXPECT_TRUE(mentions(planned.out, "(backup: " + scratch / "to/tree/in/file~" + ")")) << planned.out;
    EXPECT_EQ((Names{"file"}), kit::namesIn(scratch / "to/tree/in"));
    const ToolResult result = run({"copy", "-rfv", "--backup", "tree", "to"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.out, "(backup: " + scratch / "to/tree/in/file~" + ")")) << result.out;
    EXPECT_TRUE(mentions(result.out, ", 1 backed up\n")) << result.out;
    EXPECT_EQ("new", kit::readFile(scratch / "to/tree/in/file"));
    EXPECT_EQ("older", kit::readFile(scratch / "to/tree/in/file~"));
    // What is the same has no backup; what is replaced again takes the place of the older one.
    const ToolResult again = run({"copy", "-ru", "--backup", "tree", "to"});
    EXPECT_TRUE(mentions(again.out, ", 0 backed up\n")) << again.out;
    EXPECT_EQ("older", kit::readFile(scratch / "to/tree/in/file~"));
    kit::writeFile(scratch / "tree/in/file", "newer");
    EXPECT_EQ(0, run({"copy", "-rf", "--backup=.1", "tree", "to"}).status);
    EXPECT_EQ((Names{"file", "file.1", "file~"}), kit::namesIn(scratch / "to/tree/in"));
    EXPECT_EQ("new", kit::readFile(scratch / "to/tree/in/file.1"));
    kit::writeFile(scratch / "tree/in/file", "newest");
    EXPECT_EQ(0, run({"copy", "-rf", "--backup", "tree", "to"}).status);
    EXPECT_EQ("newer", kit::readFile(scratch / "to/tree/in/file~"));
    EXPECT_EQ("newest", kit::readFile(scratch / "to/tree/in/file"));
}

TEST_F(Backup, IsNoOtherNameOfItself) {
    const std::string old = scratch / "to/tree/in/file", other = scratch / "other", beside = scratch / "to/tree/in/one";
    ASSERT_EQ(0, ::link(old.c_str(), other.c_str()));
    const ToolResult away = run({"copy", "-f", "--backup", "tree/in/file", "to/tree/in"});
    EXPECT_EQ(0, away.status);
    EXPECT_EQ("vexofileop: " + old + ": another name of the file that was replaced keeps its content\n", away.err);
    EXPECT_EQ("older", kit::readFile(other));
    ASSERT_EQ(0, ::link(old.c_str(), beside.c_str()));
    kit::writeFile(scratch / "tree/in/file", "newer");
    const ToolResult near = run({"copy", "-f", "--backup", "tree/in/file", "to/tree/in"});
    EXPECT_TRUE(mentions(near.err, " keeps its content: " + beside + "\n")) << near.err;
    EXPECT_EQ("new", kit::readFile(old + "~"));
    // In another directory the name of a backup may be one of the file's own.
    const std::string namesake = old + ".x";
    ASSERT_EQ(0, ::link(old.c_str(), namesake.c_str()));
    kit::writeFile(scratch / "tree/in/file", "newest");
    const ToolResult kept =
        run({"copy", "-f", "--backup=.x", "--backup-dir", scratch / "old", "tree/in/file", "to/tree/in"});
    EXPECT_EQ("newer", kit::readFile(scratch / "old/file.x"));
    EXPECT_TRUE(mentions(kept.err, " keeps its content: " + namesake + "\n")) << kept.err;
}

// As after a run that was stopped: what it has brought would take the place of the only old version.
TEST_F(Backup, TheSameOnceMoreKeepsTheOldVersion) {
    ASSERT_EQ(0, ::link((scratch / "tree/in/file").c_str(), (scratch / "tree/in/other").c_str()));
    ASSERT_EQ(0, run({"copy", "-rf", "--backup", "tree", "to"}).status);
    const ToolResult planned = run({"plan", "copy", "-rf", "--backup", "tree", "to"});
    EXPECT_TRUE(mentions(planned.out, "0 replaced, 2 merged, 0 renamed, 2 skipped")) << planned.out;
    const ToolResult again = run({"copy", "-rf", "--backup", "tree", "to"});
    EXPECT_EQ(0, again.status) << again.err;
    EXPECT_TRUE(mentions(again.out, "2 skipped (2 the same), 0 failed, 0 cloned, 0 backed up\n")) << again.out;
    EXPECT_EQ("older", kit::readFile(scratch / "to/tree/in/file~"));
    EXPECT_EQ((Names{"file", "file~", "other"}), kit::namesIn(scratch / "to/tree/in"));
    // Times prove no content where somebody asks for a replacement.
    const struct stat before = kit::statOf(scratch / "tree/in/file");
    kit::writeFile(scratch / "to/tree/in/file", "odd");
    const timespec times[] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, (scratch / "to/tree/in/file").c_str(), times, 0));
    EXPECT_EQ(0, run({"copy", "-f", "--backup", "tree/in/file", "to/tree/in"}).status);
    EXPECT_EQ("new", kit::readFile(scratch / "to/tree/in/file"));
    EXPECT_EQ("odd", kit::readFile(scratch / "to/tree/in/file~"));
}

// There no copy is ever the same.
TEST_F(Backup, TheSameOnceMoreKeepsTheOldVersionOnAPoorVolume) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    kit::writeFile(volume / "file", "older");
    kit::setAttribute(scratch / "tree/in/file", "user.note", "which it does not keep");
    for (int count = 0; count < 2; ++count) {
        EXPECT_EQ(1, run({"copy", "-f", "--backup", "tree/in/file", volume.path()}).status);
        EXPECT_EQ("new", kit::readFile(volume / "file"));
        EXPECT_EQ("older", kit::readFile(volume / "file~")) << count;
    }
    EXPECT_EQ((Names{"file", "file~"}), kit::namesIn(volume.path()));
}

TEST_F(Backup, StoreGoesWithTheOldFile) {
    KIT_NEEDS_TO_MAKE_STORES();
    ASSERT_EQ(0, run({"ea", "set", "to/tree/in/file", "note", "of the old"}).status);
    ASSERT_EQ(0, run({"ea", "set", "tree/in/file", "note", "of the new"}).status);
    EXPECT_EQ(0, run({"copy", "-rf", "--backup", "tree", "to"}).status);
    EXPECT_EQ("of the new", run({"ea", "get", "to/tree/in/file", "note"}).out);
    EXPECT_EQ("of the old", run({"ea", "get", "to/tree/in/file~", "note"}).out);
    kit::writeFile(scratch / "tree/in/file", "third");
    EXPECT_EQ(0, run({"copy", "-rf", "--backup-dir", scratch / "old", "tree", "to"}).status);
    EXPECT_EQ("of the new", run({"ea", "get", "old/tree/in/file", "note"}).out);
    EXPECT_EQ("new", kit::readFile(scratch / "old/tree/in/file"));
}

TEST_F(Backup, DirectoryHoldsItWhereItLay) {
    ASSERT_EQ(0, ::chmod((scratch / "to/tree/in").c_str(), 0711));
    EXPECT_EQ(0, run({"copy", "-rf", "--backup-dir", "../old", "tree", "to"}).status);
    EXPECT_EQ("older", kit::readFile(scratch / "old/tree/in/file"));
    EXPECT_EQ((Names{"file"}), kit::namesIn(scratch / "to/tree/in"));
    kit::writeFile(scratch / "tree/in/file", "newer");
    EXPECT_EQ(0,
              run({"copy", "-f", "--backup-dir", scratch / "old", "--backup=.x", "tree/in/file", "to/tree/in"}).status);
    EXPECT_EQ("new", kit::readFile(scratch / "old/file.x"));
    // Made with the directories above it, as rsync makes them.
    kit::writeFile(scratch / "tree/in/file", "newest");
    EXPECT_EQ(0, run({"copy", "-rf", "--backup-dir", "../a/b/old", "tree", "to"}).status);
    EXPECT_EQ("newer", kit::readFile(scratch / "a/b/old/tree/in/file"));
    kit::writeFile(scratch / "to/tree/in/gone", "gone");
    EXPECT_EQ(0, run({"mirror", "-f", "--backup-dir", scratch / "c/d", "tree", "to/tree"}).status);
    EXPECT_EQ("gone", kit::readFile(scratch / "c/d/in/gone"));
}

TEST_F(Backup, MoveKeepsWhatItReplacesToo) {
    EXPECT_EQ(0, run({"move", "-f", "--backup", "tree/in/file", "to/tree/in/file"}).status);
    EXPECT_EQ("new", kit::readFile(scratch / "to/tree/in/file"));
    EXPECT_EQ("older", kit::readFile(scratch / "to/tree/in/file~"));
    EXPECT_FALSE(kit::exists(scratch / "tree/in/file"));
}

TEST_F(Backup, WhatCannotBeKeptIsNotReplaced) {
    const auto expectRefused = [&](const kit::Arguments &rest, const std::string &why) {
        kit::Arguments plan{"plan", "copy", "-f"}, copy{"copy", "-f"};
        plan.insert(plan.end(), rest.begin(), rest.end());
        copy.insert(copy.end(), rest.begin(), rest.end());
        const ToolResult planned = run(plan), result = run(copy);
        EXPECT_EQ(result.status, planned.status) << planned.out;
        EXPECT_NE(0, result.status);
        EXPECT_TRUE(mentions(result.err, why)) << result.err;
        EXPECT_TRUE(mentions(planned.out, why)) << planned.out;
        EXPECT_EQ("older", kit::readFile(scratch / "to/tree/in/file"));
    };
    // The source itself has the name of the backup.
    kit::writeFile(scratch / "to/tree/in/file~", "source");
    expectRefused({"--backup", "to/tree/in/file~", "-T", "to/tree/in/file"}, "is the source");
    EXPECT_EQ("source", kit::readFile(scratch / "to/tree/in/file~"));
    // What this command has written has it.
    kit::writeFile(scratch / "tree/in/file~", "other");
    expectRefused({"--backup", "-t", "to/tree/in", "tree/in/file~", "tree/in/file"},
                  "was just written by this command");
    EXPECT_EQ("other", kit::readFile(scratch / "to/tree/in/file~"));
    // A directory has it.
    ASSERT_EQ(0, ::mkdir((scratch / "to/tree/in/file.d").c_str(), 0755));
    expectRefused({"--backup=.d", "tree/in/file", "to/tree/in"}, "is a directory");
    EXPECT_EQ(2, run({"copy", "-f", "--backup=a/b", "tree/in/file", "to/tree/in"}).status);
    // It would be its own, by whatever path.
    for (const std::string &own : {std::string("."), scratch / "to/tree/in/../in"}) {
        expectRefused({"--backup-dir", own, "tree/in/file", "to/tree/in"}, "the directory of backups is its own");
    }
    // It is on another volume.
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    expectRefused({"--backup-dir", volume / "old", "tree/in/file", "to/tree/in"}, "is on another volume");
    EXPECT_EQ(Names{}, kit::namesIn(volume.path()));
}

TEST_F(Backup, LinkOnTheWayIntoTheDirectoryIsNotFollowed) {
    ASSERT_EQ(0, ::mkdir((scratch / "old").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((scratch / "else").c_str(), 0755));
    ASSERT_EQ(0, ::symlink("../else", (scratch / "old/tree").c_str()));
    EXPECT_EQ(2, run({"copy", "-rf", "--backup-dir", scratch / "old", "tree", "to"}).status);
    EXPECT_EQ(Names{}, kit::namesIn(scratch / "else"));
    EXPECT_EQ("older", kit::readFile(scratch / "to/tree/in/file"));
}

// The destination may be anybody's: a link in it that has the name of the directory of backups leads root nowhere.
TEST_F(Backup, LinkInTheDestinationIsNoDirectoryOfBackups) {
    ASSERT_EQ(0, ::mkdir((scratch / "else").c_str(), 0755));
    kit::writeFile(scratch / "else/file", "somebody's");
    kit::writeFile(scratch / "to/tree/in/file", "planted");
    const std::string place = scratch / "to/tree/in/old";
    ASSERT_EQ(0, ::symlink("../../../else", place.c_str()));
    const auto refused = [&](const kit::Arguments &arguments) {
        kit::Arguments plan = arguments;
        plan.insert(plan.begin(), "plan");
        EXPECT_NE(0, run(plan).status);
        const ToolResult result = run(arguments);
        EXPECT_NE(0, result.status);
        EXPECT_TRUE(mentions(result.err, " is a symbolic link, which is not followed\n")) << result.err;
        EXPECT_EQ("somebody's", kit::readFile(scratch / "else/file"));
        EXPECT_EQ((Names{"file"}), kit::namesIn(scratch / "else"));
        EXPECT_EQ("planted", kit::readFile(scratch / "to/tree/in/file"));
    };
    for (const std::string &named : {std::string("old"), std::string("./old/"), place, std::string("old/deeper")}) {
        refused({"copy", "-rf", "--backup-dir", named, "tree/in/.", "to/tree/in"});
        refused({"mirror", "-f", "--backup-dir", named, "tree/in", "to/tree/in"});
    }
    // Outside of it people may well have one.
    ASSERT_EQ(0, ::symlink("else", (scratch / "kept").c_str()));
    EXPECT_EQ(0, run({"copy", "-rf", "--backup-dir", scratch / "kept", "tree", "to"}).status);
    EXPECT_EQ("planted", kit::readFile(scratch / "else/tree/in/file"));
}

} // namespace
