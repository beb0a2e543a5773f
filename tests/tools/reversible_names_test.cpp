// vexofileop with --names=reversible: names that FAT and exFAT do not take come back, nothing is told as lost, and what
// somebody does to the list or to the names meanwhile costs nothing.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::Arguments;
using kit::mentions;
using kit::runTool;
using kit::ToolResult;

constexpr char kList[] = "/.vexofileop-names";

Arguments withMore(Arguments first, const Arguments &more) {
    first.insert(first.end(), more.begin(), more.end());
    return first;
}

// By the paths below a directory; of a directory nothing.
using Contents = std::map<std::string, std::string>;
void addContents(const std::string &top, const std::string &below, Contents &contents) {
    for (const std::string &name : kit::namesIn(top + below)) {
        const std::string path = below + "/" + name;
        const bool directory = S_ISDIR(kit::statOf(top + path).st_mode);
        contents[path] = directory ? "" : kit::readFile(top + path);
        if (directory) {
            addContents(top, path, contents);
        }
    }
}
Contents contentsOf(const std::string &top) {
    Contents contents;
    addContents(top, "", contents);
    return contents;
}

class ReversibleNames : public ::testing::Test {
  protected:
    void SetUp() override { KIT_NEEDS_ROOT("to mount volumes"); }
    void TearDown() override { ::unsetenv("VEXOFILEOP_FSTYPES"); }
    static void callItFat(const std::string &path, const char *type = "=0") {
        ::setenv("VEXOFILEOP_FSTYPES", (path + type).c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    }
    void make(const std::string &name) const { kit::writeFile(tree + "/" + name, "content of " + name); }
    // Of every kind that such a volume changes, and in a directory once more.
    void makeOdd(const std::string &below = "") const {
        for (const char letter : std::string("\"*:<>?\\|\n\r\x01\t\x1f\x7f")) {
            make(below + "odd" + letter + "one");
        }
        for (const char *const name : {"dot.",
                                       "dots...",
                                       "blank ",
                                       "blanks  ",
                                       " ",
                                       "...",
                                       "con",
                                       "CON",
                                       "aux.txt",
                                       "Nul",
                                       "com1",
                                       "lpt9.x.y",
                                       "twin",
                                       "TWIN",
                                       "Twin",
                                       "tw-in",
                                       "tw?in",
                                       "\xc3\xa4",
                                       "\xc3\x84",
                                       "plain.txt",
                                       "no text \xff\xfe",
                                       "x (1)",
                                       "x?",
                                       "x-",
                                       "x- (1)",
                                       ".vexofileop:names",
                                       "100%"}) {
            make(below + name);
        }
        for (const char last : {'a', 'A', '?', '.', ' '}) {
            make(below + std::string(254, 'n') + last);
        }
        make(below + std::string(250, '?') + ".jpeg");
    }
    void makeOddTree() const {
        ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
        makeOdd();
        for (const char *const name : {"/dir?", "/DIR?", "/prn", "/last."}) {
            ASSERT_EQ(0, ::mkdir((tree + name).c_str(), 0755));
        }
        makeOdd("dir?/");
        make("DIR?/a:b");
    }
    ToolResult run(const char *command, const Arguments &more) const {
        const bool compares = std::string(command) == "compare";
        Arguments arguments = {command, "--names=reversible", compares ? "--ignore" : "--accept",
                               compares ? "fat,dos-attributes,modification-time" : "fat,dos-attributes"};
        return runTool(withMore(arguments, more));
    }
    // There, found the same, and back.
    void expectRoundTrip(const std::string &volume) const {
        makeOddTree();
        const Contents before = contentsOf(tree);
        const ToolResult planned =
            runTool({"plan", "copy", "-r", "--names=reversible", "--accept", "fat", tree, volume});
        EXPECT_EQ(0, planned.status) << planned.out << planned.err;
        const ToolResult there = run("copy", {"-r", tree, volume});
        EXPECT_EQ(0, there.status) << there.out << there.err;
        EXPECT_FALSE(mentions(there.err, "name changed")) << there.err;
        const std::string copy = volume + "/tree";
        const auto names = kit::namesIn(copy);
        EXPECT_EQ(kit::namesIn(tree).size() + 1, names.size());
        EXPECT_EQ("content of plain.txt", kit::readFile(copy + "/plain.txt"));
        const ToolResult compared = run("compare", {tree, copy});
        EXPECT_EQ(0, compared.status) << compared.out << compared.err;
        // A second run finds everything, and numbers do not grow.
        const ToolResult again = run("copy", {"-ru", tree, volume});
        EXPECT_EQ(0, again.status) << again.err;
        EXPECT_EQ(names, kit::namesIn(copy)) << again.out;
        EXPECT_TRUE(mentions(again.out, "0 files and ")) << again.out;
        const ToolResult back = run("copy", {"-r", copy, scratch / "back"});
        EXPECT_EQ(0, back.status) << back.err;
        EXPECT_EQ(before, contentsOf(scratch / "back"));
        const ToolResult same = run("compare", {copy, scratch / "back"});
        EXPECT_EQ(0, same.status) << same.out << same.err;
        const ToolResult moved = run("move", {copy, scratch / "moved"});
        EXPECT_EQ(0, moved.status) << moved.err;
        EXPECT_EQ(before, contentsOf(scratch / "moved"));
        EXPECT_FALSE(kit::exists(copy));
    }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree";
};

TEST_F(ReversibleNames, ComeBackFromAVolumeThatIsTakenForFat) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    callItFat(volume.path());
    expectRoundTrip(volume.path());
}

TEST_F(ReversibleNames, ComeBackFromExfat) {
    KIT_REQUIRE(volume, kit::Volume::fuse("exfat-fuse", 64 << 20));
    callItFat(volume.path(), "=18");
    expectRoundTrip(volume.path());
}

TEST_F(ReversibleNames, MirrorsOfFatStayEqualAndForgetWhatIsGone) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    callItFat(volume.path());
    ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
    for (const char *const name : {"a?", "a*", "B", "b", "gone?"}) {
        make(name);
    }
    const std::string copy = volume / "tree";
    ASSERT_EQ(0, ::mkdir(copy.c_str(), 0755));
    kit::writeFile(copy + "/a-", "of a copy without a list");
    const ToolResult planned = runTool({"plan", "mirror", "--names=reversible", "--accept", "fat", tree, copy});
    EXPECT_TRUE(mentions(planned.out, "1 removed")) << planned.out;
    const ToolResult first = run("mirror", {"-f", tree, copy});
    EXPECT_EQ(0, first.status) << first.err;
    EXPECT_TRUE(mentions(first.out, "1 removed")) << first.out;
    EXPECT_EQ(0, run("compare", {tree, copy}).status);
    ASSERT_EQ(0, ::unlink((tree + "/gone?").c_str()));
    ASSERT_EQ(0, ::unlink((tree + "/a*").c_str()));
    make("a|");
    const ToolResult second = run("mirror", {"-f", tree, copy});
    EXPECT_EQ(0, second.status) << second.err;
    EXPECT_TRUE(mentions(second.out, "2 removed")) << second.out;
    const std::string list = kit::readFile(copy + kList);
    EXPECT_FALSE(mentions(list, "gone")) << list;
    EXPECT_FALSE(mentions(list, "a*")) << list;
    EXPECT_TRUE(mentions(list, "\ta|\n")) << list;
    EXPECT_EQ(0, run("compare", {tree, copy}).status);
    for (const std::string &name : kit::namesIn(tree)) {
        ASSERT_EQ(0, ::unlink((tree + "/" + name).c_str()));
    }
    make("B");
    EXPECT_EQ(0, run("mirror", {"-f", tree, copy}).status);
    EXPECT_EQ(std::vector<std::string>{"B"}, kit::namesIn(copy));
}

TEST_F(ReversibleNames, WhatItsUserRenamedComesBackAsThat) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    callItFat(volume.path());
    ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
    for (const char *const name : {"a?", "b?", "c", "C"}) {
        make(name);
    }
    const std::string copy = volume / "tree";
    ASSERT_EQ(0, run("copy", {"-r", tree, volume.path()}).status);
    ASSERT_EQ(0, ::rename((copy + "/a-").c_str(), (copy + "/holiday").c_str()));
    ASSERT_EQ(0, ::rename((copy + "/C").c_str(), (copy + "/c").c_str()));
    const ToolResult planned = runTool({"plan", "copy", "-r", "--names=reversible", copy, scratch / "back"});
    const ToolResult back = run("copy", {"-r", copy, scratch / "back"});
    for (const ToolResult &told : {planned, back}) { // "c" has come to be another one
        EXPECT_EQ(1, told.status) << told.out;
        EXPECT_TRUE(mentions(told.out + told.err, "c (1) was c before, which is another entry's name by now"))
            << told.out << told.err;
    }
    const Contents wanted = {
        {"/b?", "content of b?"}, {"/c", "content of C"}, {"/c (1)", "content of c"}, {"/holiday", "content of a?"}};
    EXPECT_EQ(wanted, contentsOf(scratch / "back"));
}

TEST_F(ReversibleNames, DamagedListsAreToldAndStay) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    callItFat(volume.path());
    ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
    make("a?");
    make("con");
    const std::string copy = volume / "tree";
    ASSERT_EQ(0, run("copy", {"-r", tree, volume.path()}).status);
    const std::string damaged = "vexofileop names 1\na-\t../a?\nend 1\n";
    kit::writeFile(copy + kList, damaged);
    const std::string why = "line 2 of .vexofileop-names is no name that an entry can have had";
    for (const char *const command : {"copy", "move"}) { // nothing goes under what it is called only there
        const ToolResult back = std::string(command) == "copy" ? run("copy", {"-r", copy, scratch / "back"})
                                                               : run("move", {"-T", copy, scratch / "back"});
        EXPECT_EQ(2, back.status);
        EXPECT_TRUE(mentions(back.err, why)) << back.err;
        EXPECT_TRUE(kit::namesIn(scratch / "back").empty());
        EXPECT_FALSE(kit::exists(scratch / "a?"));
        EXPECT_EQ((std::vector<std::string>{".vexofileop-names", "a-", "con-"}), kit::namesIn(copy));
    }
    // As a destination.
    make("plain");
    const ToolResult planned =
        runTool({"plan", "copy", "-ru", "--names=reversible", "--accept", "fat", tree, volume.path()});
    const ToolResult there = run("copy", {"-ru", tree, volume.path()});
    for (const ToolResult &told : {planned, there}) {
        EXPECT_EQ(1, told.status);
        EXPECT_TRUE(mentions(told.out + told.err, "tree/a?: its name cannot be kept there: " + why))
            << told.out << told.err;
    }
    EXPECT_EQ((std::vector<std::string>{".vexofileop-names", "a-", "con-", "plain"}), kit::namesIn(copy));
    EXPECT_EQ(damaged, kit::readFile(copy + kList));
    const ToolResult mirrored = run("mirror", {"-f", tree, copy});
    EXPECT_EQ(1, mirrored.status);
    EXPECT_EQ(damaged, kit::readFile(copy + kList)) << mirrored.out;
    const ToolResult compared = run("compare", {tree, copy});
    EXPECT_EQ(2, compared.status);
    EXPECT_TRUE(mentions(compared.out, why)) << compared.out;
    EXPECT_EQ(damaged, kit::readFile(copy + kList));
}

TEST_F(ReversibleNames, GoWithFilesThatAreNamedAndBelowPaths) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    callItFat(volume.path());
    ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((tree + "/in?").c_str(), 0755));
    for (const char *const name : {"a?", "a*", "in?/x:y", "in?/con"}) {
        make(name);
    }
    const std::string copy = volume / "to", back = scratch / "back";
    for (const std::string &directory : {copy, back}) {
        ASSERT_EQ(0, ::mkdir(directory.c_str(), 0755));
    }
    const ToolResult files = run("copy", {tree + "/a?", tree + "/a*", copy});
    EXPECT_EQ(0, files.status) << files.err;
    const ToolResult named = run("copy", {tree + "/a?", copy + "/b?"}); // by a name of the user's
    EXPECT_EQ(0, named.status) << named.err;
    const ToolResult below = run("copy", {"--relative", tree + "/./in?/x:y", tree + "/./in?/con", copy});
    EXPECT_EQ(0, below.status) << below.err;
    EXPECT_EQ((std::vector<std::string>{".vexofileop-names", "a-", "a- (1)", "b-", "in-"}), kit::namesIn(copy));
    const ToolResult returned = run("copy", {copy + "/a-", copy + "/a- (1)", copy + "/b-", back});
    EXPECT_EQ(0, returned.status) << returned.err;
    const ToolResult deeper = run("copy", {"--relative", copy + "/./in-/con-", copy + "/./in-/x-y", back});
    EXPECT_EQ(0, deeper.status) << deeper.err;
    const Contents wanted = {{"/a?", "content of a?"},           {"/a*", "content of a*"},
                             {"/b?", "content of a?"},           {"/in?", ""},
                             {"/in?/x:y", "content of in?/x:y"}, {"/in?/con", "content of in?/con"}};
    EXPECT_EQ(wanted, contentsOf(back));
    // The list itself goes nowhere, and nothing takes its place.
    kit::writeFile(scratch / "VEXO", "mine");
    const ToolResult list = run("copy", {copy + kList, back});
    EXPECT_EQ(2, list.status) << list.err;
    const ToolResult onto = run("copy", {"-f", scratch / "VEXO", copy + kList});
    EXPECT_EQ(2, onto.status);
    EXPECT_TRUE(mentions(onto.err, "the name is kept for the list of names")) << onto.err;
    EXPECT_TRUE(kit::readFile(copy + kList).starts_with("vexofileop names 1\n"));
}

// Under the long name the store would be lost.
TEST_F(ReversibleNames, WhatIsKeptForALongNameGoesWithTheShortOne) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    callItFat(volume.path());
    const std::string name(255, 'n');
    ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
    make(name);
    ASSERT_EQ(0, runTool({"ea", "set", tree + "/" + name, "com.example.note", "note"}).status);
    const ToolResult planned =
        runTool({"plan", "copy", "-r", "--names=reversible", "--accept", "fat", tree, volume.path()});
    const ToolResult there = run("copy", {"-r", tree, volume.path()});
    const ToolResult compared = run("compare", {tree, volume / "tree"});
    const ToolResult back = run("copy", {"-r", volume / "tree", scratch / "back"});
    for (const ToolResult &told : {planned, there, compared, back}) {
        EXPECT_EQ(0, told.status) << told.out << told.err;
        EXPECT_FALSE(mentions(told.out + told.err, "name-too-long")) << told.out << told.err;
    }
    const ToolResult note = runTool({"ea", "get", scratch / ("back/" + name), "com.example.note"});
    EXPECT_TRUE(mentions(note.out, "note")) << note.err;
}

TEST_F(ReversibleNames, WithoutTheOptionAListIsAFileAndVolumesThatTakeNamesGetNone) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    callItFat(volume.path());
    ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
    make("a?");
    ASSERT_EQ(0, run("copy", {"-r", tree, volume.path()}).status);
    const std::string copy = volume / "tree";
    ASSERT_EQ(0, runTool({"copy", "-r", copy, scratch / "plain"}).status);
    EXPECT_EQ((std::vector<std::string>{".vexofileop-names", "a-"}), kit::namesIn(scratch / "plain"));
    // There it is as good, and a whole tree by one call would not look at it.
    ASSERT_EQ(0, run("copy", {"-r", scratch / "plain", scratch / "back"}).status);
    EXPECT_EQ(contentsOf(tree), contentsOf(scratch / "back"));
    ASSERT_EQ(0, run("move", {scratch / "plain", scratch / "renamed"}).status);
    EXPECT_EQ(contentsOf(tree), contentsOf(scratch / "renamed"));
    EXPECT_FALSE(kit::exists(scratch / "plain"));
}

TEST_F(ReversibleNames, WhatCannotBeIsRefused) {
    const Arguments ends = {tree, scratch / "to"};
    for (const Arguments &wrong : {Arguments{"copy", "--names=both"}, Arguments{"copy", "--names="},
                                   Arguments{"copy", "--names=reversible", "--keep-both"},
                                   Arguments{"compare", "--names=reversible", "--files-from", "/dev/null"}}) {
        const ToolResult result = runTool(withMore(wrong, ends));
        EXPECT_EQ(2, result.status) << result.err;
        EXPECT_TRUE(mentions(result.err, "names")) << result.err;
    }
    EXPECT_EQ(2, runTool({"relocate", "--names=reversible", tree, scratch / "to"}).status);
}

} // namespace
