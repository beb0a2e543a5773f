// Names of one file, which stay that on their way: in a tree, across operands, over what stands there, and to another
// volume. See tools/engine/transfer/linked_files.h.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using kit::mentions;
using kit::runTool;
using kit::ToolResult;

bool areOne(const std::string &one, const std::string &other) {
    return kit::statOf(one).st_ino == kit::statOf(other).st_ino && kit::statOf(one).st_dev == kit::statOf(other).st_dev;
}

class HardLinks : public ::testing::Test {
  protected:
    // "tree/one", "tree/in/two" and "tree/zz" are one file, "tree/alone" and others are not.
    void SetUp() override {
        for (const std::string &directory : {tree, tree + "/in", to}) {
            ASSERT_EQ(0, ::mkdir(directory.c_str(), 0755));
        }
        for (const char *name : {"/one", "/alone", "/in/alone", "/in/lonely", "/in/single"}) {
            kit::writeFile(tree + name, "content of " + std::string(name));
        }
        ASSERT_EQ(0, ::link((tree + "/one").c_str(), (tree + "/in/two").c_str()));
        ASSERT_EQ(0, ::link((tree + "/one").c_str(), (tree + "/zz").c_str()));
    }
    void expectLinked(const std::string &at) const {
        EXPECT_EQ("content of /one", kit::readFile(at + "/one"));
        EXPECT_EQ(3U, kit::statOf(at + "/one").st_nlink);
        EXPECT_TRUE(areOne(at + "/one", at + "/in/two"));
        EXPECT_TRUE(areOne(at + "/one", at + "/zz"));
        EXPECT_EQ(1U, kit::statOf(at + "/alone").st_nlink);
        EXPECT_EQ("content of /alone", kit::readFile(at + "/alone"));
    }
    static void expectQuiet(const ToolResult &result) {
        EXPECT_EQ(0, result.status);
        EXPECT_EQ("", result.err);
    }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", to = scratch / "to";
};

TEST_F(HardLinks, StayInATree) {
    for (const char *how : {"-r", "-rv", "-rq"}) {
        const std::string copy = to + "/" + how;
        expectQuiet(runTool({"copy", how, "-T", tree, copy}));
        expectLinked(copy);
        EXPECT_EQ(0, runTool({"compare", tree, copy}).status);
        EXPECT_EQ(1U, kit::namesIn(copy + "/in").size() - 3) << "nothing is left behind";
    }
}

// The library copies the directories of such a tree as wholes, and each name for itself.
TEST_F(HardLinks, StayWhereOnlyAFewOfManyFilesHaveThem) {
    for (const char *directory : {"/in/a", "/in/b"}) {
        ASSERT_EQ(0, ::mkdir((tree + directory).c_str(), 0755));
        for (int number = 0; number < 40; ++number) {
            kit::writeFile(tree + directory + "/file" + std::to_string(number), std::to_string(number));
        }
    }
    const std::string linked = tree + "/in/a/file";
    for (int number = 0; number < 40; number += 8) {
        const std::string name = std::to_string(number);
        ASSERT_EQ(0, ::link((linked + name).c_str(), (tree + "/in/b/of" + name).c_str()));
    }
    expectQuiet(runTool({"copy", "-r", "-T", tree, to + "/copy"}));
    for (int number = 0; number < 40; number += 8) {
        const std::string name = std::to_string(number);
        EXPECT_TRUE(areOne(to + "/copy/in/a/file" + name, to + "/copy/in/b/of" + name)) << name;
    }
    EXPECT_EQ(45U, kit::namesIn(to + "/copy/in/b").size());
    EXPECT_EQ(0, runTool({"compare", tree, to + "/copy"}).status);
}

TEST_F(HardLinks, StayAcrossOperands) {
    expectQuiet(runTool({"copy", tree + "/one", tree + "/zz", to}));
    EXPECT_TRUE(areOne(to + "/one", to + "/zz"));
    ASSERT_EQ(0, ::mkdir((scratch / "more").c_str(), 0755));
    ASSERT_EQ(0, ::link((tree + "/one").c_str(), (scratch / "more/name").c_str()));
    ASSERT_EQ(0, ::mkdir((to + "/trees").c_str(), 0755));
    expectQuiet(runTool({"copy", "-r", tree, scratch / "more", to + "/trees"}));
    EXPECT_TRUE(areOne(to + "/trees/tree/one", to + "/trees/more/name"));
    EXPECT_EQ(4U, kit::statOf(to + "/trees/tree/one").st_nlink);
}

TEST_F(HardLinks, StayOverWhatStandsThere) {
    expectQuiet(runTool({"copy", "-r", "-T", "--accept", "hard-link", tree, to + "/copy"}));
    const std::string copy = to + "/copy";
    ASSERT_EQ(0, ::unlink((copy + "/zz").c_str()));
    kit::writeFile(copy + "/zz", "a file of its own");
    ASSERT_EQ(0, ::unlink((copy + "/alone").c_str()));
    ASSERT_EQ(0, ::link((copy + "/one").c_str(), (copy + "/alone").c_str()));
    expectQuiet(runTool({"copy", "-rf", "-T", tree, copy}));
    expectLinked(copy);
    EXPECT_EQ(0, runTool({"compare", tree, copy}).status);
}

// What a name holds that is passed over nobody has looked at: it is skipped, and no loss of those that arrive.
TEST_F(HardLinks, NamesThatArriveBesideOneThatIsPassedOverAreAFileApart) {
    const std::string copy = to + "/copy";
    expectQuiet(runTool({"copy", "-r", "-T", tree, copy}));
    ASSERT_EQ(0, ::unlink((copy + "/one").c_str()));
    ASSERT_EQ(0, ::unlink((copy + "/in/two").c_str()));
    const ToolResult planned = runTool({"plan", "copy", "-rn", "-T", tree, copy});
    const ToolResult run = runTool({"copy", "-rn", "-T", tree, copy});
    EXPECT_EQ(0, planned.status);
    EXPECT_EQ(0, run.status);
    EXPECT_FALSE(mentions(planned.out + run.out + run.err, "of its own")) << planned.out << run.err;
    EXPECT_TRUE(mentions(run.err, "skipped, for the destination exists")) << run.err;
    EXPECT_TRUE(areOne(copy + "/one", copy + "/in/two"));
    EXPECT_FALSE(areOne(copy + "/one", copy + "/zz"));
    EXPECT_EQ(1U, kit::statOf(copy + "/zz").st_nlink);
    EXPECT_TRUE(mentions(runTool({"compare", tree, copy}).out, "(hard-link)"));
    expectQuiet(runTool({"copy", "-ru", "-T", tree, copy}));
    expectLinked(copy);
}

TEST_F(HardLinks, EachNameKeepsItsStore) {
    KIT_NEEDS_TO_MAKE_STORES();
    ASSERT_EQ(0, runTool({"ea", "set", tree + "/one", "note", "of one"}).status);
    ASSERT_EQ(0, runTool({"ea", "set", tree + "/in/two", "note", "of two"}).status);
    for (const char *how : {"-r", "-rv", "-rf"}) {
        const std::string copy = to + "/copy";
        if (how == std::string("-rv")) {
            ASSERT_EQ(0, runTool({"remove", "-rf", copy}).status);
        }
        expectQuiet(runTool({"copy", how, "-T", tree, copy}));
        expectLinked(copy);
        EXPECT_EQ("of one", runTool({"ea", "get", copy + "/one", "note"}).out);
        EXPECT_EQ("of two", runTool({"ea", "get", copy + "/in/two", "note"}).out);
        EXPECT_NE(0, runTool({"ea", "get", copy + "/zz", "note"}).status);
    }
}

// The kernel renames no name to another one of the same file, and leaves both.
TEST_F(HardLinks, NameThatIsThereAlreadyGetsItsStoreAndLeavesNothingBeside) {
    KIT_NEEDS_TO_MAKE_STORES();
    ASSERT_EQ(0, runTool({"ea", "set", tree + "/one", "note", "of both"}).status);
    expectQuiet(runTool({"copy", tree + "/one", tree + "/zz", to}));
    kit::writeFile(tree + "/@eaDir/zz@VexoEAStream", kit::readFile(tree + "/@eaDir/one@VexoEAStream"));
    for (const kit::Arguments &command : {kit::Arguments{"plan", "copy"}, {"copy"}}) {
        kit::Arguments arguments = command;
        arguments.insert(arguments.end(), {"-uv", tree + "/one", tree + "/zz", to});
        const ToolResult result = runTool(arguments);
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_FALSE(mentions(result.out + result.err, "content")) << result.out << result.err;
    }
    EXPECT_EQ("of both", runTool({"ea", "get", to + "/zz", "note"}).out);
    EXPECT_TRUE(areOne(to + "/one", to + "/zz"));
    EXPECT_EQ(2U, kit::statOf(to + "/one").st_nlink);
    EXPECT_EQ((std::vector<std::string>{"@eaDir", "one", "zz"}), kit::namesIn(to));
}

TEST_F(HardLinks, StayOnTheWayToAnotherVolume) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    const ino_t elsewhere = kit::statOf(tree + "/one").st_ino;
    ASSERT_EQ(0, ::link((tree + "/one").c_str(), (scratch / "elsewhere").c_str()));
    expectQuiet(runTool({"move", tree, volume / "there"}));
    expectLinked(volume / "there");
    EXPECT_FALSE(kit::exists(tree));
    EXPECT_EQ("content of /one", kit::readFile(scratch / "elsewhere"));
    EXPECT_EQ(elsewhere, kit::statOf(scratch / "elsewhere").st_ino);
}

// What stays of a file for a failure is one with what went before once it goes, too.
TEST_F(HardLinks, StayWhereAMoveFailsForOneOfThemAndIsRunAgain) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    for (const char *jobs : {"-j1", "-j2"}) {
        const std::string from = scratch / jobs, moved = volume / jobs;
        expectQuiet(runTool({"copy", "-r", "-T", tree, from}));
        ASSERT_EQ(0, ::mkdir(moved.c_str(), 0755));
        kit::writeFile(moved + "/in", "is in the way");
        EXPECT_EQ(1, runTool({"move", "-u", jobs, "-T", from, moved}).status);
        ASSERT_TRUE(kit::exists(moved + "/one")) << jobs;
        ASSERT_FALSE(kit::exists(from + "/one")) << jobs;
        ASSERT_TRUE(kit::exists(from + "/in/two")) << jobs;
        ASSERT_EQ(0, ::unlink((moved + "/in").c_str()));
        expectQuiet(runTool({"move", "-u", jobs, "-T", from, moved}));
        expectLinked(moved);
        EXPECT_FALSE(kit::exists(from));
    }
    EXPECT_EQ((std::vector<std::string>{"-j1", "-j2"}), kit::namesIn(volume.path())) << "no note is left";
}

// A note is no proof: what it names has to be the same, and the note its reader's own.
TEST_F(HardLinks, NoteOfAnEarlierMoveIsNotBelievedWithoutAProof) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    const auto tamper = [&](int kind, const std::string &from, const std::string &moved) {
        std::string note;
        for (const std::string &name : kit::namesIn(volume.path())) {
            note = name.ends_with(".links") ? volume / name : note;
        }
        ASSERT_NE("", note);
        const struct stat copy = kit::statOf(moved + "/one");
        const timespec times[] = {copy.st_atim, copy.st_mtim};
        if (kind == 0) { // another content of the same length and time
            kit::writeFile(from + "/in/two", "CONTENT OF /one");
            ASSERT_EQ(0, ::utimensat(AT_FDCWD, (from + "/in/two").c_str(), times, 0));
        } else if (kind == 1) {
            ASSERT_EQ(0, ::chmod(note.c_str(), 0644)); // others may have had it
        } else if (kind == 2) {
            ASSERT_EQ(0, ::link(note.c_str(), (volume / "second").c_str()));
        }
    };
    for (int kind = 0; kind < 3; ++kind) {
        const std::string name = std::to_string(kind), from = scratch / name, moved = volume / name;
        expectQuiet(runTool({"copy", "-r", "-T", tree, from}));
        ASSERT_EQ(0, ::mkdir(moved.c_str(), 0755));
        kit::writeFile(moved + "/in", "is in the way");
        EXPECT_EQ(1, runTool({"move", "-T", from, moved}).status);
        tamper(kind, from, moved);
        ASSERT_EQ(0, ::unlink((moved + "/in").c_str()));
        EXPECT_EQ(0, runTool({"move", "-u", "-T", from, moved}).status);
        EXPECT_EQ("content of /one", kit::readFile(moved + "/one")) << kind;
        EXPECT_EQ(kind == 0 ? "CONTENT OF /one" : "content of /one", kit::readFile(moved + "/in/two")) << kind;
        EXPECT_FALSE(areOne(moved + "/one", moved + "/in/two")) << kind;
        (void)::unlink((volume / "second").c_str());
    }
}

TEST_F(HardLinks, StayInARelocatedDirectory) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    const ToolResult result = runTool({"relocate", "-y", tree, volume / "there"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_FALSE(mentions(result.err, "hard-link")) << result.err;
    expectLinked(volume / "there");
}

TEST_F(HardLinks, TakeTheRoomOfOneFile) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    kit::writeFile(tree + "/one", kit::pattern(300'000));
    for (const char *how : {"-r", "-rv"}) {
        const ToolResult planned = runTool({"plan", "copy", "-r", "-T", tree, volume / how});
        EXPECT_EQ(0, planned.status) << planned.out;
        const ToolResult result = runTool({"copy", how, "-T", tree, volume / how});
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_EQ(0, runTool({"compare", tree, volume / how}).status);
        ASSERT_EQ(0, runTool({"remove", "-rf", volume / how}).status);
    }
    const ToolResult planned = runTool({"plan", "copy", "-r", "--no-hard-links", "-T", tree, volume / "copies"});
    EXPECT_TRUE(mentions(planned.out, "2 names that became files of their own")) << planned.out;
}

TEST_F(HardLinks, AreTold) {
    const ToolResult result = runTool({"copy", "-rv", "-T", tree, to + "/copy"});
    EXPECT_TRUE(mentions(result.out, "/copy/zz (linked)\n") || mentions(result.out, "/copy/one (linked)\n"))
        << result.out;
    EXPECT_TRUE(mentions(runTool({"copy", "-r", "--json", "-T", tree, to + "/again"}).out, R"("linked":true)"));
    EXPECT_TRUE(mentions(runTool({"plan", "copy", "-rv", "-T", tree, to + "/third"}).out, " (linked)\n"));
    EXPECT_TRUE(mentions(runTool({"plan", "copy", "-r", "--json", "-T", tree, to + "/third"}).out, R"("linked":true)"));
}

TEST_F(HardLinks, BecomeFilesOnRequest) {
    for (const char *how : {"-r", "-rv"}) {
        const ToolResult result = runTool({"copy", how, "--no-hard-links", "-T", tree, to + "/" + how});
        EXPECT_EQ(0, result.status);
        EXPECT_TRUE(mentions(result.err, "2 names that became files of their own, which takes more room"))
            << result.err;
        EXPECT_EQ(1U, kit::statOf(to + "/" + how + "/one").st_nlink);
        EXPECT_EQ("content of /one", kit::readFile(to + "/" + how + "/zz"));
    }
}

// No link leads from one volume to another: there is a file of its own, which is told.
TEST_F(HardLinks, EndAtTheEdgeOfAVolume) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, ::mkdir((to + "/in").c_str(), 0755));
    ASSERT_EQ(0, ::mount(volume.path().c_str(), (to + "/in").c_str(), nullptr, MS_BIND, nullptr));
    const ToolResult planned = runTool({"plan", "copy", "-rf", "-T", tree, to});
    const ToolResult result = runTool({"copy", "-rf", "-T", tree, to});
    ASSERT_EQ(0, ::umount2((to + "/in").c_str(), MNT_DETACH));
    EXPECT_EQ(0, result.status);
    EXPECT_TRUE(mentions(result.err, "1 name that became a file of its own")) << result.err;
    EXPECT_TRUE(mentions(planned.out, "1 name that became a file of its own")) << planned.out;
    EXPECT_TRUE(areOne(to + "/one", to + "/zz") != areOne(to + "/one", volume / "two"));
    EXPECT_EQ("content of /one", kit::readFile(volume / "two"));
}

} // namespace
