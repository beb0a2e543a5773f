// What a run leaves to the next one: of a move that was stopped, of a source that changed meanwhile, of hard links that
// were broken, on volumes that have none, and where letter cases are one.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::mentions;
using kit::runTool;
using kit::ToolOnTerminal;
using kit::ToolResult;

constexpr time_t kOld = 1'000'000'000;

void setOld(const std::string &path) {
    const timespec times[] = {{kOld, 0}, {kOld, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0)) << path;
}

bool hasPrivateNames(const std::string &directory) {
    return std::ranges::any_of(kit::namesIn(directory),
                               [](const std::string &name) { return name.starts_with(".vexofileop-"); });
}

// ---- a move that is stopped among the entries of its directories ----

class StoppedMove : public ::testing::Test {
  protected:
    static constexpr int kFiles = 60;
    void SetUp() override {
        KIT_NEEDS_ROOT("to mount volumes");
        for (const char *directory : {"", "/d", "/d/e"}) {
            ASSERT_EQ(0, ::mkdir((tree + directory).c_str(), 0755));
        }
        for (int i = 0; i < kFiles; ++i) {
            kit::writeFile(tree + "/d/f" + std::to_string(i), std::string(8 << 10, 'd'));
            kit::writeFile(tree + "/d/e/f" + std::to_string(i), std::string(8 << 10, 'e'));
        }
        for (const char *directory : {"/d/e", "/d", ""}) {
            setOld(tree + directory);
        }
    }
    size_t left() const {
        const auto count = [&](const char *name) {
            return kit::exists(tree + name) ? kit::namesIn(tree + name).size() : 0;
        };
        return count("/d") + count("/d/e");
    }
    // Stops one that is slow by a signal, once some entries have left.
    void stop(const std::string &to, int signal) const {
        constexpr size_t some = 8;
        const size_t all = left();
        ToolOnTerminal tool({"move", "-u", "--bwlimit", "60", tree, to}); // a quarter of a minute for all of it
        const auto begun = [&] { return left() + some < all; };
        const bool caught = signal == SIGKILL || tool.catches(signal);
        ASSERT_TRUE(caught);
        for (int tries = 0; !begun() && tries < 60'000; ++tries) {
            ::usleep(1'000);
        }
        tool.send(signal);
        const ToolResult result = tool.finish();
        ASSERT_NE(0, result.status) << result.out;
        ASSERT_TRUE(kit::exists(tree + "/d"));
    }
    static void expectOld(const std::string &top) {
        for (const char *directory : {"", "/d", "/d/e"}) {
            EXPECT_EQ(kOld, kit::statOf(top + directory).st_mtim.tv_sec) << directory;
            EXPECT_FALSE(hasPrivateNames(top + directory)) << directory;
        }
    }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree";
};

TEST_F(StoppedMove, SecondRunKeepsTheTimesOfDirectories) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    stop(volume.path(), SIGKILL);
    stop(volume.path(), SIGKILL); // and a second time
    const ToolResult second = runTool({"move", "-u", tree, volume.path()});
    EXPECT_EQ(0, second.status) << second.err;
    EXPECT_FALSE(kit::exists(tree));
    expectOld(volume / "tree");
    EXPECT_FALSE(hasPrivateNames(volume.path()));
}

TEST_F(StoppedMove, DirectoriesThatStayKeepTheirTimes) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    stop(volume.path(), SIGINT);
    expectOld(tree);
    EXPECT_EQ(0, runTool({"move", "-u", tree, volume.path()}).status);
    expectOld(volume / "tree");
    EXPECT_FALSE(hasPrivateNames(volume.path()));
}

// What keeps the times is of nobody's use once the source is gone.
TEST_F(StoppedMove, NoteOfASourceThatIsGoneGoes) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    stop(volume.path(), SIGKILL);
    EXPECT_TRUE(hasPrivateNames(volume.path()));
    ASSERT_EQ(0, runTool({"remove", "-rf", tree}).status);
    kit::writeFile(scratch / "other", "other");
    EXPECT_EQ(0, runTool({"copy", scratch / "other", volume.path()}).status);
    EXPECT_FALSE(hasPrivateNames(volume.path()));
}

// ---- a source that changes while it is copied ----

class GrowsMeanwhile : public ::testing::Test {
  protected:
    void SetUp() override {
        kit::writeFile(source, std::string(512 << 10, 'n'));
        ASSERT_EQ(0, ::mkdir(place.c_str(), 0755));
    }
    ToolResult run(kit::Arguments arguments) const {
        arguments.insert(arguments.end(), {"--bwlimit", "100", source, copy});
        ToolOnTerminal tool(arguments);
        for (int tries = 0; !hasPrivateNames(place) && tries < 60'000; ++tries) {
            ::usleep(1'000);
        }
        EXPECT_EQ(0, ::truncate(source.c_str(), 600 << 10));
        return tool.finish();
    }

    kit::ScratchDirectory scratch;
    const std::string source = scratch / "source", place = scratch / "place", copy = place + "/copy";
};

class GrowsMeanwhileBy : public GrowsMeanwhile, public ::testing::WithParamInterface<kit::Arguments> {};

TEST_P(GrowsMeanwhileBy, TakesNobodysPlace) {
    kit::writeFile(copy, "good and old");
    const ToolResult result = run(GetParam());
    EXPECT_NE(0, result.status);
    EXPECT_TRUE(mentions(result.out, "changed while it was copied")) << result.out;
    EXPECT_EQ("good and old", kit::readFile(copy));
    EXPECT_EQ(std::vector<std::string>{"copy"}, kit::namesIn(place));
    EXPECT_TRUE(kit::exists(source));
}
INSTANTIATE_TEST_SUITE_P(Each, GrowsMeanwhileBy,
                         ::testing::Values(kit::Arguments{"copy", "-f"}, kit::Arguments{"copy", "-f", "--verify"},
                                           kit::Arguments{"copy", "-f", "--backup"}, kit::Arguments{"copy", "-u"}));

// Nothing stands under its name then either, where it was to be verified.
TEST_F(GrowsMeanwhile, IsNotVerified) {
    EXPECT_NE(0, run({"copy", "--verify"}).status);
    EXPECT_TRUE(kit::namesIn(place).empty());
}

// ---- what a stopped command leaves, or seems to have left ----

TEST_F(GrowsMeanwhile, WhatMayBeSomebodysOwnIsToldOf) {
    ToolOnTerminal tool({"copy", "--bwlimit", "20", source, copy});
    for (int tries = 0; !hasPrivateNames(place) && tries < 60'000; ++tries) {
        ::usleep(1'000);
    }
    tool.send(SIGKILL);
    ASSERT_TRUE(tool.finish().killed);
    ASSERT_EQ(1U, kit::namesIn(place).size());
    const std::string left = place + "/" + kit::namesIn(place).front();
    ASSERT_EQ(0, ::unlink(left.c_str()));
    ASSERT_EQ(0, ::mkdir(left.c_str(), 0755));
    const ToolResult result = runTool({"copy", source, copy});
    EXPECT_EQ(0, result.status);
    EXPECT_TRUE(mentions(result.err, left + ": has the name of what a stopped command leaves, but may be somebody's "
                                            "own; stays"))
        << result.err;
    EXPECT_TRUE(kit::exists(left));
    ASSERT_EQ(0, ::mkdir((scratch / "other").c_str(), 0755));
    const ToolResult compared = runTool({"compare", scratch / "other", place});
    EXPECT_TRUE(mentions(compared.err, left + ": left over from a command that was stopped; not compared\n"))
        << compared.err;
    ASSERT_EQ(0, ::chmod(left.c_str(), 0700));
    EXPECT_EQ("", runTool({"copy", "-f", source, copy}).err);
    EXPECT_FALSE(kit::exists(left));
}

// ---- names of one file ----

const std::string kApart = "-r"; // of a command that gets the directories one by one

class BrokenLink : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *directory : {"", "/a", "/b"}) {
            ASSERT_EQ(0, ::mkdir((tree + directory).c_str(), 0755));
        }
        kit::writeFile(tree + "/a/x", "one");
    }
    void link(const std::string &name) const { ASSERT_EQ(0, ::link((tree + "/a/x").c_str(), (tree + name).c_str())); }
    void breakIt(const std::string &content) const {
        ASSERT_EQ(0, ::unlink((tree + "/b/z").c_str()));
        kit::writeFile(tree + "/b/z", content);
    }
    // The one that was broken is a file of its own there too, the others still are one.
    void expectBroken(bool three) const {
        EXPECT_EQ("one", kit::readFile(copy + "/a/x"));
        EXPECT_EQ("changed", kit::readFile(copy + "/b/z"));
        EXPECT_EQ(three ? 2U : 1U, kit::statOf(copy + "/a/x").st_nlink);
        EXPECT_EQ(1U, kit::statOf(copy + "/b/z").st_nlink);
        EXPECT_EQ(0, runTool({"compare", tree, copy}).status);
    }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", copy = scratch / "copy";
};

TEST_F(BrokenLink, IsBrokenByAnUpdateAndByAMirror) {
    for (const bool three : {false, true}) {
        for (const kit::Arguments &command :
             {kit::Arguments{"copy", "-ru", "-T"}, kit::Arguments{"copy", "-u", kApart},
              kit::Arguments{"copy", "-f", kApart}, kit::Arguments{"copy", "-u", "--jobs", "2", kApart},
              kit::Arguments{"mirror", "-f"}}) {
            SCOPED_TRACE(command.back() + (three ? " of three" : " of two"));
            for (const char *name : {"/b/y", "/b/z"}) {
                (void)::unlink((tree + name).c_str());
            }
            link("/b/z");
            if (three) {
                link("/b/y");
            }
            if (kit::exists(copy)) {
                ASSERT_EQ(0, runTool({"remove", "-r", "-f", copy}).status);
            }
            ASSERT_EQ(0, runTool({"copy", "-r", "-T", tree, copy}).status);
            breakIt("changed");
            // In this order, whatever the directory's: the name that stays is met first.
            kit::Arguments arguments = command;
            const bool apart = command.back() == kApart;
            arguments.insert(arguments.end(), {tree + (apart ? "/a" : ""), apart ? tree + "/b" : copy});
            if (apart) {
                arguments.push_back(copy);
            }
            const ToolResult result = runTool(arguments);
            EXPECT_EQ(0, result.status) << result.err;
            expectBroken(three);
        }
    }
}

// What is the same is a file of its own at the destination, too, and nothing is written through another name.
TEST_F(BrokenLink, OfTheSameContentIsBroken) {
    link("/b/z");
    ASSERT_EQ(0, runTool({"copy", "-r", "-T", tree, copy}).status);
    ASSERT_EQ(0, ::unlink((tree + "/b/z").c_str()));
    ASSERT_EQ(0, runTool({"copy", tree + "/a/x", tree + "/b/z"}).status);
    EXPECT_EQ(0, runTool({"copy", "-ru", "-T", tree, copy}).status);
    EXPECT_EQ(1U, kit::statOf(copy + "/b/z").st_nlink);
}

TEST_F(BrokenLink, IsNotWrittenInPlaceWhereThatWouldChangeTheOther) {
    link("/b/z");
    ASSERT_EQ(0, runTool({"copy", "-r", "-T", tree, copy}).status);
    breakIt("changed");
    EXPECT_EQ(0, runTool({"copy", "-rf", "--in-place", tree + "/a", tree + "/b", copy}).status);
    expectBroken(false);
}

// Two sources of one name: the second does not take the place of the first, though that has other names.
TEST_F(BrokenLink, SourcesOfOneNameDoNotReplaceEachOther) {
    link("/b/z");
    kit::writeFile(tree + "/b/x", "other");
    ASSERT_EQ(0, ::mkdir(copy.c_str(), 0755));
    const ToolResult result = runTool({"copy", "-f", tree + "/a/x", tree + "/b/z", tree + "/b/x", copy});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "was just written by this command; not replaced")) << result.err;
    EXPECT_EQ("one", kit::readFile(copy + "/x"));
    EXPECT_EQ("one", kit::readFile(copy + "/z"));
}

// ---- volumes that are programs ----

TEST_F(BrokenLink, SecondRunWithoutHardLinksWritesNothing) {
    KIT_NEEDS_ROOT("to mount volumes");
    KIT_REQUIRE(volume, kit::Volume::fuse("exfat-fuse", 64 << 20));
    link("/b/z");
    link("/b/y");
    const std::string to = volume / "to";
    (void)runTool({"copy", "-r", "-T", "--accept", "all", tree, to});
    const ino_t number = kit::statOf(to + "/b/z").st_ino;
    const ToolResult planned = runTool({"plan", "copy", "-ru", "-T", "--accept", "all", tree, to});
    const ToolResult second = runTool({"copy", "-ru", "-T", "--accept", "all", tree, to});
    EXPECT_TRUE(mentions(second.out, "0 files and ")) << second.out << second.err;
    EXPECT_TRUE(mentions(second.out, "3 skipped (3 the same)")) << second.out;
    EXPECT_EQ(number, kit::statOf(to + "/b/z").st_ino);
    EXPECT_TRUE(mentions(planned.out, "3 skipped")) << planned.out;
    EXPECT_FALSE(hasPrivateNames(to + "/b"));
}

TEST(SecondRun, NamesOfTwoLetterCasesAreTwoWhereTheVolumeKeepsThemApart) {
    KIT_NEEDS_ROOT("to mount volumes");
    KIT_REQUIRE(volume, kit::Volume::fuse("ntfs-3g", 64 << 20));
    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", to = volume / "to";
    ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
    for (const char *name : {"/Case", "/case"}) {
        kit::writeFile(tree + name, "one");
    }
    ASSERT_NE(2, runTool({"copy", "-r", "-T", tree, to}).status);
    if (kit::namesIn(to).size() != 2) {
        GTEST_SKIP() << "the volume makes one of them";
    }
    for (const char *name : {"/Case", "/case"}) {
        kit::writeFile(tree + name, std::string("changed ") + name);
    }
    for (const kit::Arguments &command : {kit::Arguments{"copy", "-ru", "-T"}, kit::Arguments{"mirror", "-f"}}) {
        kit::Arguments arguments = command;
        arguments.insert(arguments.end(), {tree, to});
        const ToolResult result = runTool(arguments);
        EXPECT_FALSE(mentions(result.err, "just written")) << result.err;
        EXPECT_FALSE(mentions(result.err, "the same one")) << result.err;
        for (const char *name : {"/Case", "/case"}) {
            EXPECT_EQ(std::string("changed ") + name, kit::readFile(to + name));
        }
    }
}

} // namespace
