// What hands and scripts bring along from cp, mv and rm: their names, their options, a slash behind a name, a question
// that nobody answers, a list that does not come.
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::mentions;
using kit::runTool;
using kit::ToolOnTerminal;
using kit::ToolResult;
using Names = std::vector<std::string>;

class Habits : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *name : {"a", "a/both", "b", "b/both", "into"}) {
            ASSERT_EQ(0, ::mkdir((scratch / name).c_str(), 0755));
        }
        for (const char *name : {"file", "a/one", "a/both/one", "b/two", "b/both/two"}) {
            kit::writeFile(scratch / name, name);
        }
    }
    // In the scratch directory.
    ToolResult run(const kit::Arguments &arguments, const std::string &input = {}) const {
        return runTool(arguments, {.input = input, .directory = scratch.path()});
    }

    kit::ScratchDirectory scratch;
};

// ---- Names of commands

TEST_F(Habits, CommandThatThereIsNoneOfIsNamedAndTheNearOneOffered) {
    const auto said = [&](const kit::Arguments &arguments) {
        const ToolResult result = run(arguments);
        EXPECT_EQ(2, result.status);
        return result.err;
    };
    EXPECT_EQ("vexofileop: unknown command \"cp\"; did you mean \"copy\"?\nTry 'vexofileop --help'.\n",
              said({"cp", "-r", "a", "b"}));
    EXPECT_TRUE(mentions(said({"mvoe", "a", "b"}), "unknown command \"mvoe\"; did you mean \"move\"?\n"));
    EXPECT_TRUE(mentions(said({"rm", "a"}), "unknown command \"rm\"; did you mean \"remove\" or \"ea rm\"?\n"));
    EXPECT_TRUE(mentions(said({"get", "a", "b"}), "unknown command \"get\"; did you mean \"ea get\"?\n"));
    EXPECT_EQ("vexofileop: unknown command \"sett\"; did you mean \"set\"?\nTry 'vexofileop ea --help'.\n",
              said({"ea", "sett", "a"}));
    EXPECT_EQ("vexofileop: unknown command \"so\\nmething\"\nTry 'vexofileop --help'.\n", said({"so\nmething"}));
}

// ---- A volume that has room, but takes no more files

TEST_F(Habits, VolumeWithoutInodesIsSaidToLackThose) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(8 << 20));
    ASSERT_EQ(0, ::mount(nullptr, volume.path().c_str(), nullptr, MS_REMOUNT, "nr_inodes=4"));
    const std::string words = "no inode left on the volume, which has room but takes no more files";
    kit::writeFile(volume / "photo", "x");
    ASSERT_EQ(0, ::mkdir((volume / "taken").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((volume / "too").c_str(), 0755));
    for (const kit::Arguments &words_of :
         {kit::Arguments{"copy", "file", volume / "file"}, {"copy", "-r", "a", volume / "a"}}) {
        const ToolResult result = run(words_of);
        EXPECT_EQ(2, result.status);
        EXPECT_TRUE(mentions(result.err, words + " (0x2900)")) << result.err;
    }
    EXPECT_TRUE(mentions(run({"plan", "copy", "file", volume / "file"}).out, words));
    const ToolResult relocated = run({"relocate", "-y", "a", volume / "a"});
    EXPECT_EQ(2, relocated.status);
    EXPECT_TRUE(mentions(relocated.err, words) && mentions(relocated.err, "is as it was")) << relocated.err;
    EXPECT_FALSE(mentions(relocated.err, "goes on from here")) << relocated.err;
    EXPECT_EQ(3U, kit::namesIn(volume.path()).size());
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=0").c_str(), 1);
    const ToolResult set = run({"ea", "set", volume / "photo", "note", "1"});
    ::unsetenv("VEXOFILEOP_FSTYPES");
    EXPECT_EQ(2, set.status);
    EXPECT_TRUE(mentions(set.err, words)) << set.err;
}

// ---- A slash behind a name

TEST_F(Habits, SlashBehindAFileIsNamedByPlansAndMetadataCommands) {
    EXPECT_TRUE(mentions(run({"plan", "copy", "file/", "into"}).out, "is a file, not a directory"));
    for (const kit::Arguments &words_of : {kit::Arguments{"ea", "list", "file/"},
                                           {"ea", "set", "file/", "note", "1"},
                                           {"archive", "clear", "file/"},
                                           {"compare", "file/", "file"}}) {
        const ToolResult result = run(words_of);
        EXPECT_EQ(2, result.status) << words_of[1];
        EXPECT_TRUE(mentions(result.err, "is a file, not a directory; give it without the slash")) << result.err;
    }
}

TEST_F(Habits, SlashBehindAFileSaysThatItIsNoDirectory) {
    for (const char *command : {"copy", "move"}) {
        const ToolResult result = run({command, "file/", "into"});
        EXPECT_EQ(2, result.status);
        EXPECT_TRUE(mentions(result.err, "/file/: is a file, not a directory; give it without the slash\n"))
            << result.err;
    }
    const ToolResult target = run({"copy", "a/one", "file/"});
    EXPECT_EQ(2, target.status);
    EXPECT_TRUE(mentions(target.err, "/file: is not a directory\n")) << target.err;
    EXPECT_TRUE(mentions(run({"copy", "none/", "into"}).err, "/none/: no such file")) << "one that is not there";
}

// ---- Where things go

TEST_F(Habits, ContentsOfSeveralDirectoriesGoIntoOne) {
    const ToolResult result = run({"copy", "-r", "a/.", "b/.", "into"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ((Names{"both", "one", "two"}), kit::namesIn(scratch / "into"));
    EXPECT_EQ((Names{"one", "two"}), kit::namesIn(scratch / "into/both"));
    // But no file of the one replaces one of the other.
    kit::writeFile(scratch / "b/one", "of b");
    ASSERT_EQ(0, ::mkdir((scratch / "again").c_str(), 0755));
    EXPECT_EQ(1, run({"copy", "-rf", "a/.", "b/.", "again"}).status);
    EXPECT_EQ("a/one", kit::readFile(scratch / "again/one"));
    // Nor is a directory of one name merged with that of another source, whatever came before.
    EXPECT_EQ(1, run({"copy", "-rf", "a/.", "b/both", "again"}).status);
}

TEST_F(Habits, LinkWithADotMeansWhatItLeadsTo) {
    ASSERT_EQ(0, ::symlink("a", (scratch / "link").c_str()));
    EXPECT_EQ(0, run({"copy", "-r", "link/.", "into"}).status);
    EXPECT_EQ((Names{"both", "one"}), kit::namesIn(scratch / "into"));
    EXPECT_TRUE(mentions(run({"copy", "a/.", "into"}).err, "/a: is a directory; -r copies it")) << "without -r";
}

TEST_F(Habits, TargetDirectoryComesFirst) {
    EXPECT_EQ(0, run({"copy", "-t", "into", "file", "a/one"}).status);
    EXPECT_EQ((Names{"file", "one"}), kit::namesIn(scratch / "into"));
    EXPECT_EQ(0, run({"move", "--target-directory=into", "b/two"}).status);
    EXPECT_EQ("b/two", kit::readFile(scratch / "into/two"));
    EXPECT_EQ(0, run({"copy", "-t", "b", "--files-from", "-"}, "file\na/one\n").status); // a list alone
    EXPECT_EQ((Names{"both", "file", "one"}), kit::namesIn(scratch / "b"));
}

TEST_F(Habits, TargetDirectoryHasToBeOne) {
    EXPECT_TRUE(mentions(run({"copy", "-t", "file", "a/one"}).err, "/file: is not a directory\n"));
    EXPECT_TRUE(mentions(run({"copy", "-t", "none", "a/one"}).err, "/none: no such directory\n"));
    EXPECT_TRUE(mentions(run({"copy", "-t", "into"}).err, "no file given\n"));
    EXPECT_TRUE(mentions(run({"copy", "-t", "", "file"}).err, "an empty path was given\n"));
    EXPECT_EQ(2, run({"copy", "-T", "-t", "into", "file"}).status);
    EXPECT_EQ(2, run({"copy", "-t", "into", "-t", "a", "file"}).status);
}

TEST_F(Habits, NewNameIsOneAlsoWhereADirectoryHasIt) {
    EXPECT_EQ(0, run({"copy", "-rT", "a", "into"}).status);
    EXPECT_EQ((Names{"both", "one"}), kit::namesIn(scratch / "into")); // merged, not into/a
    const ToolResult result = run({"copy", "-T", "file", "into"});
    EXPECT_EQ(2, result.status);
    EXPECT_TRUE(mentions(result.err, "(0xA200)")) << result.err;
    EXPECT_EQ(0, run({"move", "-T", "file", "renamed"}).status);
    EXPECT_EQ("file", kit::readFile(scratch / "renamed"));
    EXPECT_TRUE(mentions(run({"copy", "-T", "a", "b", "into"}).err, "with -T there is one file and its new name\n"));
    EXPECT_EQ(2, run({"copy", "-T", "into", "--files-from", "-"}, "renamed\n").status);
}

TEST_F(Habits, WhatIsDoneAnywayIsAccepted) {
    EXPECT_EQ(0, run({"copy", "-ap", "a", "into"}).status);
    EXPECT_EQ("a/both/one", kit::readFile(scratch / "into/a/both/one"));
    EXPECT_EQ(0, run({"copy", "--archive", "--preserve", "b", "into"}).status);
    EXPECT_EQ(0, run({"move", "-r", "a", "moved"}).status);
    EXPECT_EQ("a/one", kit::readFile(scratch / "moved/one"));
}

// ---- What is said

TEST_F(Habits, QuietSaysNothingButFailures) {
    EXPECT_EQ("", run({"copy", "-rq", "a", "into"}).out);
    const ToolResult again = run({"copy", "-rqn", "a", "into"});
    EXPECT_EQ("", again.out + again.err);
    const ToolResult refused = run({"copy", "-rq", "a", "into"});
    EXPECT_EQ(2, refused.status);
    EXPECT_TRUE(mentions(refused.err, "destination exists (0xA300)"));
    EXPECT_EQ("", refused.out);
    EXPECT_EQ("", run({"remove", "-r", "--quiet", "into"}).out);
}

TEST_F(Habits, WhatWasThereAlreadyIsOneLine) {
    for (int at = 0; at < 20; ++at) {
        kit::writeFile(scratch / ("a/" + std::to_string(at)), "x");
    }
    ASSERT_EQ(0, run({"copy", "-r", "a", "into"}).status);
    const ToolResult result = run({"copy", "-rn", "a", "into"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("vexofileop: 22 skipped, for the destination exists; -v names them\n", result.err);
    const ToolResult verbose = run({"copy", "-rnv", "a", "into"});
    EXPECT_TRUE(mentions(verbose.out, "/one (skipped, destination exists)\n"));
    EXPECT_EQ("", verbose.err);
    const ToolResult json = run({"copy", "-rn", "--json", "a", "into"});
    EXPECT_TRUE(mentions(json.out, "\"status\":\"skipped\""));
    EXPECT_EQ("", json.err);
}

TEST_F(Habits, QuestionWithoutAnAnswerIsNoSuccess) {
    ASSERT_EQ(0, run({"copy", "-r", "a", "into"}).status);
    const ToolResult result = run({"copy", "-ri", "a", "into"});
    EXPECT_EQ(1, result.status);
    constexpr const char *said = "no answer can be read; what would have to be asked about stays as it is\n";
    EXPECT_TRUE(mentions(result.err, said)) << result.err;
    EXPECT_EQ(result.err.find("[y/N]"), result.err.rfind("[y/N]")) << "asked again";
    const ToolResult removal = run({"remove", "-ri", "a"}, "y\n");
    EXPECT_EQ(1, removal.status);
    EXPECT_TRUE(mentions(removal.err, said));
    EXPECT_EQ("a/one", kit::readFile(scratch / "a/one"));
    // An answer whose line does not end is one.
    EXPECT_EQ(0, run({"remove", "-i", "a/one"}, "y").status);
    EXPECT_FALSE(kit::exists(scratch / "a/one"));
}

// ---- What does not come, or does not end

TEST_F(Habits, OneSignalEndsTheWaitForAList) {
    ASSERT_EQ(0, ::mkfifo((scratch / "list").c_str(), 0600));
    for (const kit::Arguments &arguments : {kit::Arguments{"copy", "--files-from", scratch / "list", scratch / "into"},
                                            {"remove", "--files-from", scratch / "list"},
                                            {"ea", "list", "--files-from", scratch / "list"}}) {
        ToolOnTerminal tool(arguments);
        ASSERT_TRUE(tool.catches(SIGTERM));
        tool.send(SIGTERM);
        const ToolResult result = tool.finish();
        EXPECT_EQ(143, result.status) << arguments.front() << result.out;
        EXPECT_FALSE(result.killed);
    }
}

TEST_F(Habits, ListFromAPipeIsReadToItsEnd) {
    ASSERT_EQ(0, ::mkfifo((scratch / "list").c_str(), 0600));
    const std::string writer = "(printf 'file\\n'; printf 'a/one\\n') >" + (scratch / "list") + " &";
    ASSERT_EQ(0, std::system(writer.c_str()));
    EXPECT_EQ(0, run({"copy", "--files-from", "list", "into"}).status);
    EXPECT_EQ((Names{"file", "one"}), kit::namesIn(scratch / "into"));
}

TEST_F(Habits, ValueWithoutAnEndIsRefused) {
    KIT_NEEDS_TO_MAKE_STORES();
    ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=7").c_str(), 1);
    const ToolResult native = run({"ea", "set", "file", "name", "--from", "/dev/zero"});
    ::unsetenv("VEXOFILEOP_FSTYPES");
    EXPECT_EQ(2, native.status);
    EXPECT_TRUE(mentions(native.err, "/dev/zero has more than 65536 bytes\n")) << native.err;
}

// ---- Files with holes

TEST_F(Habits, FileWithHolesNeedsRoomForWhatItHas) {
    KIT_REQUIRE(small, kit::Volume::tmpfs(16 << 20));
    kit::writeSparse(scratch / "a/holes", off_t{1} << 30, {{0, 4096}, {off_t{700} << 20, 2 << 20}});
    ASSERT_EQ(0, ::chown((scratch / "a/holes").c_str(), 1234, 1235));
    ASSERT_EQ(0, ::chmod((scratch / "a/holes").c_str(), 04755));
    const auto expect_whole = [&](const std::string &copy) {
        const struct stat found = kit::statOf(copy);
        EXPECT_EQ(off_t{1} << 30, found.st_size);
        EXPECT_EQ(1234u, found.st_uid);
        EXPECT_EQ(1235u, found.st_gid);
        EXPECT_EQ(04755u, found.st_mode & 07777);
        EXPECT_EQ(kit::statOf(scratch / "a/holes").st_mtim.tv_sec, found.st_mtim.tv_sec);
        EXPECT_EQ(0, std::system(("cmp " + (scratch / "a/holes") + " " + copy).c_str()));
        ASSERT_EQ(0, ::unlink(copy.c_str()));
    };
    const ToolResult file = run({"copy", "a/holes", small / "copy"});
    EXPECT_EQ(0, file.status) << file.err;
    expect_whole(small / "copy");
    const ToolResult tree = run({"copy", "-r", "a", small / "tree"});
    EXPECT_EQ(0, tree.status) << tree.err;
    expect_whole(small / "tree/holes");
    // What it has takes too much as well: then nothing is left of the attempt.
    kit::writeSparse(scratch / "much", off_t{1} << 30, {{0, 32 << 20}});
    const ToolResult much = run({"copy", "much", small / "much"});
    EXPECT_EQ(2, much.status);
    EXPECT_TRUE(mentions(much.err, "no space left on the volume (0x2900)\n")) << much.err;
    EXPECT_EQ(Names{"tree"}, kit::namesIn(small.path()));
}

} // namespace
