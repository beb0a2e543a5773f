// copy and move --relative, with a list of names below a directory and without: paths are made anew below the
// destination, with the directories on the way.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/tools/tool_process.h"

#include <cstdlib>
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

class Relative : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *directory : {"base", "base/a", "base/a/b", "base/a/c", "base/e", "into"}) {
            ASSERT_EQ(0, ::mkdir((scratch / directory).c_str(), 0755));
        }
        kit::writeFile(scratch / "base/a/b/one", "one");
        kit::writeFile(scratch / "base/a/b/more", "more");
        kit::writeFile(scratch / "base/a/c/two", "two");
        kit::writeFile(scratch / "base/top", "top");
        ASSERT_EQ(0, ::symlink("../top", (scratch / "base/e/link").c_str()));
        ASSERT_EQ(0, ::symlink("a", (scratch / "base/away").c_str()));
        ASSERT_EQ(0, ::chmod((scratch / "base/a/b").c_str(), 0750));
        for (const char *directory : {"base/a/b", "base/a/c", "base/a", "base/e", "base"}) {
            giveTime(scratch / directory);
        }
    }
    static void giveTime(const std::string &path) {
        const timespec times[] = {{1000000000, 0}, {1000000000, 0}};
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW));
    }
    ToolResult run(const kit::Arguments &arguments, const std::string &input = "") const {
        return runTool(arguments, {.input = input, .directory = scratch.path()});
    }
    void expectDirectory(const char *path, mode_t mode = 0755) const {
        const struct stat found = kit::statOf(scratch / path);
        EXPECT_TRUE(S_ISDIR(found.st_mode)) << path;
        EXPECT_EQ(mode, found.st_mode & 07777) << path;
        EXPECT_EQ(1000000000, found.st_mtim.tv_sec) << path;
    }

    kit::ScratchDirectory scratch;
};

TEST_F(Relative, PartBehindTheMarkIsMadeAnewWithItsDirectories) {
    const ToolResult result = run({"copy", "--relative", "base/./a/b/one", "base/./top", "into"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ((Names{"a", "top"}), kit::namesIn(scratch / "into"));
    EXPECT_EQ((Names{"one"}), kit::namesIn(scratch / "into/a/b"));
    expectDirectory("into/a/b", 0750);
    expectDirectory("into/a");
}

TEST_F(Relative, WholePathIsMadeAnewWithoutTheMark) {
    // The directories from the root on are not of a user who is not root, who cannot give them to their owner.
    const ToolResult result =
        run({"copy", "--relative", "--accept", "owner,group", "base/a/c/two", scratch / "base/top", "into"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("two", kit::readFile(scratch / "into/base/a/c/two"));
    EXPECT_EQ("top", kit::readFile(scratch / "into" + scratch / "base/top"));
    expectDirectory("into/base/a/c");
}

TEST_F(Relative, TreeGoesWhole) {
    EXPECT_EQ(0, run({"copy", "-r", "--relative", "base/./a", "base/./e/", "-t", "into"}).status);
    EXPECT_EQ((Names{"b", "c"}), kit::namesIn(scratch / "into/a"));
    EXPECT_EQ((Names{"more", "one"}), kit::namesIn(scratch / "into/a/b"));
    EXPECT_TRUE(S_ISLNK(kit::statOf(scratch / "into/e/link").st_mode));
    expectDirectory("into/a/b", 0750);
    const ToolResult alone = run({"copy", "--relative", "base/./a", "into"});
    EXPECT_EQ(2, alone.status);
    EXPECT_TRUE(mentions(alone.err, "/base/a: ")) << alone.err;
}

TEST_F(Relative, LinkOnTheWayIsFollowedWhereAUserPointsAndBecomesADirectory) {
    EXPECT_EQ(0, run({"copy", "--relative", "base/./away/c/two", "into"}).status);
    EXPECT_EQ("two", kit::readFile(scratch / "into/away/c/two"));
    expectDirectory("into/away");
}

TEST_F(Relative, ListNamesWhatLiesBelowTheDirectory) {
    // Directories go alone, links as links, in any order, each once; what a tree lists first is the tree itself.
    const std::string list = ".\n./a\na/c/two\na/b/one\n/e/link\na/c/../c/two\na/b\n";
    const ToolResult planned = run({"plan", "copy", "-v", "--relative", "--files-from", "-", "base", "into"}, list);
    EXPECT_EQ(0, planned.status) << planned.out;
    EXPECT_TRUE(mentions(planned.out, "7 new, ")) << planned.out;
    EXPECT_EQ(Names{}, kit::namesIn(scratch / "into"));
    const ToolResult result = run({"copy", "--relative", "--files-from", "-", "base", "into"}, list);
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.out, "3 files and 5 directories copied")) << result.out;
    EXPECT_EQ((Names{"a", "e"}), kit::namesIn(scratch / "into"));
    EXPECT_EQ((Names{"one"}), kit::namesIn(scratch / "into/a/b"));
    EXPECT_EQ((Names{"two"}), kit::namesIn(scratch / "into/a/c"));
    EXPECT_TRUE(S_ISLNK(kit::statOf(scratch / "into/e/link").st_mode));
    for (const char *directory : {"into", "into/a", "into/a/c", "into/e"}) {
        expectDirectory(directory);
    }
    expectDirectory("into/a/b", 0750);
    // Again, with -u: nothing is left to do.
    const ToolResult again = run({"copy", "-u", "--relative", "--files-from", "-", "base", "into"}, list);
    EXPECT_EQ(0, again.status) << again.err;
    EXPECT_TRUE(mentions(again.out, "3 skipped (3 the same)")) << again.out;
    expectDirectory("into/a");
}

TEST_F(Relative, ListWithTreesTakesEachEntryOnce) {
    const std::string list = "a/b/one\na\na/c\n";
    const ToolResult planned = run({"plan", "copy", "-r", "--relative", "--files-from", "-", "base", "into"}, list);
    EXPECT_EQ(0, planned.status) << planned.out;
    const ToolResult result = run({"copy", "-r", "--relative", "--files-from", "-", "base", "into"}, list);
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("", result.err);
    EXPECT_EQ((Names{"more", "one"}), kit::namesIn(scratch / "into/a/b"));
    EXPECT_EQ(0, run({"compare", "base/a", "into/a"}).status);
    EXPECT_EQ(0, run({"copy", "-ru", "--relative", "--files-from", "-", "base", "into"}, ".\n").status);
    EXPECT_EQ(0, run({"compare", "base", "into"}).status);
}

TEST_F(Relative, ListMayEndItsNamesWithNulAndComeThroughAPipe) {
    ASSERT_EQ(0, ::mkfifo((scratch / "list").c_str(), 0600));
    const std::string writer = R"((printf 'a/b/one\000e/link\000') >)" + (scratch / "list") + " &";
    ASSERT_EQ(0, std::system(writer.c_str()));
    EXPECT_EQ(0, run({"copy", "--relative", "--from0", "--files-from", "list", "base", "into"}).status);
    EXPECT_EQ("one", kit::readFile(scratch / "into/a/b/one"));
    EXPECT_TRUE(S_ISLNK(kit::statOf(scratch / "into/e/link").st_mode));
}

TEST_F(Relative, NameThatLeavesTheBaseIsRefusedBeforeAnythingIsDone) {
    for (const char *name : {"..", "../base/top", "a/../../base/top", "/../top"}) {
        const ToolResult result =
            run({"copy", "--relative", "--files-from", "-", "base", "into"}, "top\n" + std::string(name) + "\n");
        EXPECT_EQ(2, result.status) << name;
        EXPECT_TRUE(mentions(result.err, "leads out of the directory")) << result.err;
        EXPECT_EQ(Names{}, kit::namesIn(scratch / "into")) << name;
    }
    EXPECT_EQ(2, run({"copy", "--relative", "base/../base/top", "into"}).status);
    EXPECT_EQ(Names{}, kit::namesIn(scratch / "into"));
    EXPECT_EQ(0, run({"copy", "--relative", "into/../base/./top", "into"}).status);
}

TEST_F(Relative, LinkBelowTheBaseLeadsNowhere) {
    const std::string list = "away/c/two\ntop\n";
    for (const char *command : {"copy", "move"}) {
        const ToolResult planned = run({"plan", command, "--relative", "--files-from", "-", "base", "into"}, list);
        const ToolResult result = run({command, "--relative", "--files-from", "-", "base", "into"}, list);
        EXPECT_EQ(1, planned.status) << planned.out;
        EXPECT_EQ(1, result.status);
        EXPECT_TRUE(mentions(result.err, "/away/c/two: lies behind the symbolic link ")) << result.err;
        EXPECT_EQ((Names{"top"}), kit::namesIn(scratch / "into"));
        ASSERT_EQ(0, ::rename((scratch / "into/top").c_str(), (scratch / "base/top").c_str()));
    }
    // At the destination neither.
    ASSERT_EQ(0, ::mkdir((scratch / "else").c_str(), 0755));
    ASSERT_EQ(0, ::symlink("../else", (scratch / "into/a").c_str()));
    EXPECT_EQ(2, run({"copy", "--relative", "--files-from", "-", "base", "into"}, "a/c/two\n").status);
    EXPECT_EQ(Names{}, kit::namesIn(scratch / "else"));
}

TEST_F(Relative, MoveTakesWhatIsNamedAndLeavesTheDirectoriesOnTheWay) {
    const ToolResult result =
        run({"move", "--relative", "--files-from", "-", "base", "into"}, "a/b/one\na/c\nnone/x\n");
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "/base/none/x: ")) << result.err;
    // "a" and "a/b" are at both places, and "a/c" has gone.
    EXPECT_TRUE(mentions(result.out, "1 file and 1 directory moved (3 B)")) << result.out;
    EXPECT_TRUE(mentions(result.out, ", 2 directories on the way\n")) << result.out;
    EXPECT_EQ("two", kit::readFile(scratch / "into/a/c/two"));
    EXPECT_EQ((Names{"one"}), kit::namesIn(scratch / "into/a/b"));
    EXPECT_EQ((Names{"b"}), kit::namesIn(scratch / "base/a"));
    EXPECT_EQ((Names{"more"}), kit::namesIn(scratch / "base/a/b"));
    expectDirectory("into/a");
    expectDirectory("into/a/b", 0750);
    EXPECT_EQ(2, run({"move", "--relative", "--files-from", "-", "base", "into"}, ".\n").status);
}

TEST_F(Relative, DirectoriesThatStayAreNotCountedAsMoved) {
    const ToolResult result = run({"move", "--json", "--relative", "base/./a/b/one", "into"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.out, R"("directories":0,)")) << result.out;
    EXPECT_TRUE(mentions(result.out, R"("on_the_way":2,)")) << result.out;
    EXPECT_FALSE(mentions(run({"copy", "--relative", "base/./a/c/two", "into"}).out, "on the way"));
}

TEST_F(Relative, SelectionSeesTheNameFromTheBaseOn) {
    EXPECT_EQ(
        0, run({"copy", "-r", "--relative", "--exclude", "/a/b", "base/./a/b/one", "base/./a/c/two", "into"}).status);
    EXPECT_EQ((Names{"c"}), kit::namesIn(scratch / "into/a"));
}

TEST_F(Relative, DestinationIsADirectoryThatIsThere) {
    EXPECT_EQ(2, run({"copy", "--relative", "base/top", "none"}).status);
    EXPECT_EQ(2, run({"copy", "--relative", "-T", "base/top", "into"}).status);
    EXPECT_EQ(2, run({"copy", "--relative", "--files-from", "-", "base", "into", "into"}, "top\n").status);
    EXPECT_EQ(Names{}, kit::namesIn(scratch / "into"));
}

TEST_F(Relative, DeepWayCostsFewDescriptors) {
    std::string path = scratch / "base", name;
    for (int depth = 0; depth < 60; ++depth) {
        path += "/d";
        name += (depth > 0 ? "/d" : "d");
        ASSERT_EQ(0, ::mkdir(path.c_str(), 0755));
        kit::writeFile(path + "/f", "f");
        giveTime(path);
    }
    std::string list;
    for (size_t end = name.size(); end != std::string::npos; end = end < 2 ? std::string::npos : end - 2) {
        list += name.substr(0, end) + "/f\n"; // from the lowest one up
    }
    const std::string few = "ulimit -n 40; exec " + std::string(VEXOFILEOP_TOOL) + " copy --relative --files-from - " +
                            scratch / "base" + " " + scratch / "into" + " >/dev/null";
    kit::writeFile(scratch / "names", list);
    EXPECT_EQ(0, std::system(("(" + few + ") <" + scratch / "names").c_str()));
    EXPECT_EQ("f", kit::readFile(scratch / "into/" + name + "/f"));
    EXPECT_EQ(1000000000, kit::statOf(scratch / "into/" + name).st_mtim.tv_sec);
    EXPECT_EQ(0, run({"compare", "base/d", "into/d"}).status);
}

TEST_F(Relative, ComparisonGoesByTheSameList) {
    const std::string list = "a/b/one\ne/link\n";
    ASSERT_EQ(0, run({"copy", "--relative", "--files-from", "-", "base", "into"}, list).status);
    EXPECT_EQ(1, run({"compare", "base", "into"}).status);
    const ToolResult same = run({"compare", "--files-from", "-", "base", "into"}, list);
    EXPECT_EQ(0, same.status) << same.out;
    EXPECT_EQ("", same.out);
    const ToolResult missing = run({"compare", "--files-from", "-", "base", "into"}, list + "top\n");
    EXPECT_EQ(1, missing.status);
    EXPECT_TRUE(mentions(missing.out, "/base/top -> ")) << missing.out;
    EXPECT_EQ(2, run({"compare", "--files-from", "-", "base", "into"}, "none\na/b/one\n").status);
    EXPECT_EQ(2, run({"compare", "--files-from", "-", "base", "into"}, "../base/top\n").status);
}

// What rsync makes of the same list.
TEST_F(Relative, ListMakesWhatRsyncMakes) {
    if (std::system("command -v rsync >/dev/null") != 0) {
        GTEST_SKIP() << "rsync is not installed";
    }
    ASSERT_EQ(0, ::mkdir((scratch / "theirs").c_str(), 0755));
    kit::writeFile(scratch / "names", "a/b/one\n/e/link\na/c\n./top\naway\n");
    EXPECT_EQ(0, run({"copy", "--relative", "--files-from", "names", "base", "into"}).status);
    const std::string rsync = "cd " + scratch.path() + " && rsync -a --files-from names base theirs";
    ASSERT_EQ(0, std::system(rsync.c_str()));
    giveTime(scratch / "into");
    giveTime(scratch / "theirs");
    for (const char *link : {"/e/link", "/away"}) { // not every rsync keeps the times of links
        giveTime(scratch / "into" + link);
        giveTime(scratch / "theirs" + link);
    }
    const ToolResult compared = run({"compare", "--ignore", "creation-time", "theirs", "into"});
    EXPECT_EQ(0, compared.status) << compared.out;
}

} // namespace
