// copy -u and move -u: what is the same stays as it is, what differs is replaced, and a run that was stopped is
// finished by the same command.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::mentions;
using kit::runTool;
using kit::ToolResult;

void giveTime(const std::string &path, time_t seconds, long nanoseconds = 0) {
    const timespec times[] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW));
}

class Update : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
        ASSERT_EQ(0, ::mkdir((tree + "/in").c_str(), 0755));
        kit::writeFile(tree + "/one", "one");
        kit::writeFile(tree + "/in/two", "two");
        ASSERT_EQ(0, ::symlink("one", (tree + "/link").c_str()));
        ASSERT_EQ(0, runTool({"copy", "-r", "-T", tree, copy}).status);
    }
    ToolResult update() const { return runTool({"copy", "-ru", "-T", tree, copy}); }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", copy = scratch / "copy";
};

TEST_F(Update, WhatIsTheSameStaysTheFileThatItIs) {
    const ino_t one = kit::statOf(copy + "/one").st_ino, link = kit::statOf(copy + "/link").st_ino;
    const ToolResult planned = runTool({"plan", "copy", "-ru", "-v", "-T", tree, copy});
    EXPECT_EQ(0, planned.status);
    EXPECT_TRUE(mentions(planned.out, "/copy/one: the same already\n")) << planned.out;
    const ToolResult result = update();
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.err);
    EXPECT_EQ("0 files and 2 directories copied (0 B), 3 skipped (3 the same), 0 failed, 0 cloned\n", result.out);
    EXPECT_EQ(one, kit::statOf(copy + "/one").st_ino);
    EXPECT_EQ(link, kit::statOf(copy + "/link").st_ino);
    EXPECT_TRUE(mentions(runTool({"copy", "-ruv", "-T", tree, copy}).out, "/copy/one (the same already)\n"));
    EXPECT_TRUE(mentions(runTool({"copy", "-ru", "--json", "-T", tree, copy}).out, R"("same":true)"));
}

struct Difference {
    const char *name;
    std::function<void(const std::string &tree, const std::string &copy)> make;
};

class UpdateOf : public Update, public ::testing::WithParamInterface<Difference> {};

TEST_P(UpdateOf, DifferenceIsCarried) {
    GetParam().make(tree, copy);
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    ASSERT_EQ(1, runTool({"compare", tree, copy}).status);
    const ToolResult planned = runTool({"plan", "copy", "-ru", "-T", tree, copy});
    const ToolResult result = update();
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.out, "1 file and 2 directories copied")) << result.out;
    EXPECT_TRUE(mentions(planned.out, "1 replaced, ") || mentions(planned.out, "1 new, ")) << planned.out;
    EXPECT_EQ(0, runTool({"compare", tree, copy}).status);
}

const Difference kDifferences[] = {
    {"Content", [](const std::string &tree, const std::string &) { kit::writeFile(tree + "/one", "longer"); }},
    {"Time", [](const std::string &tree, const std::string &) { giveTime(tree + "/one", 1'000'000'000); }},
    {"OlderTime", [](const std::string &, const std::string &copy) { giveTime(copy + "/one", 1'900'000'000); }},
    {"Mode",
     [](const std::string &tree, const std::string &) { ASSERT_EQ(0, ::chmod((tree + "/one").c_str(), 0600)); }},
    {"Missing",
     [](const std::string &, const std::string &copy) { ASSERT_EQ(0, ::unlink((copy + "/in/two").c_str())); }},
    {"LinkThatLeadsElsewhere",
     [](const std::string &, const std::string &copy) {
         ASSERT_EQ(0, ::unlink((copy + "/link").c_str()));
         ASSERT_EQ(0, ::symlink("two", (copy + "/link").c_str()));
     }},
    {"LinkInThePlaceOfAFile",
     [](const std::string &, const std::string &copy) {
         ASSERT_EQ(0, ::unlink((copy + "/one").c_str()));
         ASSERT_EQ(0, ::symlink("in/two", (copy + "/one").c_str()));
     }},
    {"StreamOfTheStore",
     [](const std::string &tree, const std::string &) {
         KIT_NEEDS_TO_MAKE_STORES();
         ASSERT_EQ(0, runTool({"ea", "set", tree + "/one", "note", "x"}).status);
     }},
    {"StreamThatWent",
     [](const std::string &tree, const std::string &copy) {
         KIT_NEEDS_TO_MAKE_STORES();
         ASSERT_EQ(0, runTool({"ea", "set", tree + "/one", "note", "x"}).status);
         ASSERT_EQ(0, runTool({"copy", "-f", tree + "/one", copy + "/one"}).status);
         ASSERT_EQ(0, runTool({"ea", "set", copy + "/one", "note", "y"}).status);
     }},
};
INSTANTIATE_TEST_SUITE_P(Each, UpdateOf, ::testing::ValuesIn(kDifferences),
                         [](const auto &each) { return std::string(each.param.name); });

TEST_F(Update, ContentDecidesWithChecksum) {
    const struct stat old = kit::statOf(copy + "/one");
    kit::writeFile(copy + "/one", "ONE");
    giveTime(copy + "/one", old.st_mtim.tv_sec, old.st_mtim.tv_nsec);
    EXPECT_EQ(0, update().status);
    EXPECT_EQ("ONE", kit::readFile(copy + "/one")) << "nothing shows it without reading";
    const ToolResult planned = runTool({"plan", "copy", "-ru", "--checksum", "-T", tree, copy});
    EXPECT_TRUE(mentions(planned.out, "1 replaced, ")) << planned.out;
    EXPECT_EQ(0, runTool({"copy", "-ru", "--checksum", "-T", tree, copy}).status);
    EXPECT_EQ("one", kit::readFile(copy + "/one"));
    EXPECT_EQ(2, runTool({"copy", "-r", "--checksum", "-T", tree, copy}).status);
}

TEST_F(Update, WhatMayBeLostIsNoDifferenceButTimeAndContentAre) {
    ASSERT_EQ(0, ::chmod((copy + "/one").c_str(), 0600));
    const ino_t before = kit::statOf(copy + "/one").st_ino;
    const ToolResult result = runTool({"copy", "-ru", "--accept", "all", "-T", tree, copy});
    EXPECT_EQ(0, result.status);
    EXPECT_TRUE(mentions(result.err, "1 mode not kept, as accepted")) << result.err;
    EXPECT_EQ(before, kit::statOf(copy + "/one").st_ino);
    giveTime(tree + "/one", 1'000'000'000);
    EXPECT_EQ(0, runTool({"copy", "-ru", "--accept", "all", "-T", tree, copy}).status);
    EXPECT_NE(before, kit::statOf(copy + "/one").st_ino);
}

TEST_F(Update, NamesOfOneFileBecomeOneAgain) {
    ASSERT_EQ(0, ::link((tree + "/one").c_str(), (tree + "/in/other").c_str()));
    ASSERT_EQ(0, runTool({"copy", "-rf", "--no-hard-links", "-T", tree, copy}).status);
    EXPECT_NE(kit::statOf(copy + "/one").st_ino, kit::statOf(copy + "/in/other").st_ino);
    const ToolResult planned = runTool({"plan", "copy", "-ru", "-T", tree, copy});
    EXPECT_TRUE(mentions(planned.out, "1 replaced, ")) << planned.out;
    const ToolResult result = update();
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.err);
    EXPECT_TRUE(mentions(result.out, "1 file and 2 directories copied")) << result.out;
    EXPECT_EQ(kit::statOf(copy + "/one").st_ino, kit::statOf(copy + "/in/other").st_ino);
    const ToolResult again = update();
    EXPECT_TRUE(mentions(again.out, "4 skipped (4 the same)")) << again.out;
    EXPECT_TRUE(mentions(runTool({"plan", "copy", "-ru", "-T", tree, copy}).out, "4 skipped")) << "and the plan";
}

TEST_F(Update, DirectoryAndWhatItReplacesNoneOfStay) {
    ASSERT_EQ(0, ::unlink((copy + "/one").c_str()));
    ASSERT_EQ(0, ::mkdir((copy + "/one").c_str(), 0755));
    const ToolResult result = update();
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(S_ISDIR(kit::statOf(copy + "/one").st_mode));
    EXPECT_EQ("one", kit::readFile(tree + "/one"));
    const ToolResult itself = runTool({"copy", "-u", tree + "/one", tree + "/one"});
    EXPECT_EQ(2, itself.status);
    EXPECT_TRUE(mentions(itself.err, "the same file")) << itself.err;
}

TEST_F(Update, MoveToAnotherVolumeRemovesWhatIsThereAlreadyOnceItWasRead) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, runTool({"copy", "-r", "-T", tree, volume / "there"}).status);
    const struct stat old = kit::statOf(volume / "there/in/two");
    kit::writeFile(volume / "there/in/two", "TWO"); // as if it were the same
    giveTime(volume / "there/in/two", old.st_mtim.tv_sec, old.st_mtim.tv_nsec);
    const ino_t one = kit::statOf(volume / "there/one").st_ino;
    const ToolResult result = runTool({"move", "-u", "-T", tree, volume / "there"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_FALSE(kit::exists(tree));
    EXPECT_EQ(one, kit::statOf(volume / "there/one").st_ino);
    EXPECT_EQ("two", kit::readFile(volume / "there/in/two"));
}

} // namespace
