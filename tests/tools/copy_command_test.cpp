// vexofileop copy and move from a script: what happens to the files, the messages, the exit status, the JSON.
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <memory>
#include <optional>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::Arguments;
using kit::runTool;
using kit::ToolResult;

using JsonObject = std::unique_ptr<json_object, decltype(&json_object_put)>;

std::vector<JsonObject> parsedLines(const std::string &out) {
    std::vector<JsonObject> objects;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        objects.emplace_back(json_tokener_parse(line.c_str()), &json_object_put);
    }
    return objects;
}

std::string textIn(const JsonObject &object, const char *name) {
    json_object *member = nullptr;
    return json_object_object_get_ex(object.get(), name, &member) ? json_object_get_string(member) : "(absent)";
}

std::string compactIn(const JsonObject &object, const char *name) {
    json_object *member = nullptr;
    return json_object_object_get_ex(object.get(), name, &member)
               ? json_object_to_json_string_ext(member, JSON_C_TO_STRING_PLAIN)
               : "(absent)";
}

class CopyCommand : public ::testing::Test {
  protected:
    void SetUp() override {
        kit::writeFile(from, "new");
        ASSERT_EQ(0, ::mkdir(into.c_str(), 0755));
    }
    std::string arrow(const std::string &source, const std::string &destination) const {
        return "vexofileop: " + source + " -> " + destination + ": ";
    }

    kit::ScratchDirectory scratch;
    const std::string from = scratch / "from", to = scratch / "to", into = scratch / "into";
};
using MoveCommand = CopyCommand;

TEST_F(CopyCommand, CopiesContentModeAndTimesInSilence) {
    ASSERT_EQ(0, ::chmod(from.c_str(), 0640));
    const timespec times[2] = {{1000, 0}, {2000, 123456789}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, from.c_str(), times, 0));
    const ToolResult result = runTool({"copy", from, to});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_EQ("", result.err);
    EXPECT_EQ("new", kit::readFile(to));
    const struct stat there = kit::statOf(to);
    EXPECT_EQ(0640u, there.st_mode & 07777);
    EXPECT_EQ(2000, there.st_mtim.tv_sec);
    EXPECT_EQ(123456789, there.st_mtim.tv_nsec);
}

TEST_F(CopyCommand, KeepsTheOwnerWhenRunByRoot) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    ASSERT_EQ(0, ::chown(from.c_str(), 1234, 4321));
    EXPECT_EQ(0, runTool({"copy", from, to}).status);
    EXPECT_EQ(1234u, kit::statOf(to).st_uid);
    EXPECT_EQ(4321u, kit::statOf(to).st_gid);
}

TEST_F(CopyCommand, ExistingDestinationIsRefusedWithReasonAndCode) {
    kit::writeFile(to, "old");
    const ToolResult result = runTool({"copy", from, to});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ(arrow(from, to) + "destination exists (0xA300)\n", result.err);
    EXPECT_EQ("old", kit::readFile(to));
}

TEST_F(CopyCommand, ForceReplaces) {
    kit::writeFile(to, "old and longer");
    EXPECT_EQ(0, runTool({"copy", "-f", from, to}).status);
    EXPECT_EQ("new", kit::readFile(to));
}

TEST_F(CopyCommand, NoClobberLeavesAndSucceeds) {
    kit::writeFile(to, "old");
    const ToolResult result = runTool({"copy", "-nv", from, to});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(from + " -> " + to + " (skipped, destination exists)\n", result.out);
    EXPECT_EQ("old", kit::readFile(to));
}

TEST_F(CopyCommand, KeepBothFindsAFreeName) {
    kit::writeFile(scratch / "to.txt", "old");
    const ToolResult first = runTool({"copy", "--keep-both", "-v", from, scratch / "to.txt"});
    EXPECT_EQ(0, first.status);
    EXPECT_EQ(from + " -> " + (scratch / "to (1).txt") + "\n", first.out);
    EXPECT_EQ(0, runTool({"copy", "--keep-both", from, scratch / "to.txt"}).status);
    EXPECT_EQ("old", kit::readFile(scratch / "to.txt"));
    EXPECT_EQ("new", kit::readFile(scratch / "to (1).txt"));
    EXPECT_EQ("new", kit::readFile(scratch / "to (2).txt"));
}

TEST_F(CopyCommand, KeepBothOfAFileWithItselfMakesADuplicate) {
    EXPECT_EQ(0, runTool({"copy", "--keep-both", from, from}).status);
    EXPECT_EQ("new", kit::readFile(scratch / "from (1)"));
}

TEST_F(CopyCommand, LastOfSeveralPoliciesHolds) {
    kit::writeFile(to, "old");
    EXPECT_EQ(0, runTool({"copy", "-f", "-n", from, to}).status);
    EXPECT_EQ("old", kit::readFile(to));
    EXPECT_EQ(0, runTool({"copy", "-n", "--force", from, to}).status);
    EXPECT_EQ("new", kit::readFile(to));
}

TEST_F(CopyCommand, AnswersMayComeFromAPipe) {
    kit::writeFile(to, "old");
    kit::writeFile(scratch / "from2", "new2");
    kit::writeFile(into + "/from", "old");
    kit::writeFile(into + "/from2", "old");
    const ToolResult result = runTool({"copy", "-i", from, scratch / "from2", into}, {.input = "n\nyes\n"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("old", kit::readFile(into + "/from"));
    EXPECT_EQ("new2", kit::readFile(into + "/from2"));
}

TEST_F(CopyCommand, SomeFailedGivesOneAndAllFailedTwo) {
    const ToolResult some = runTool({"copy", from, scratch / "none", into});
    EXPECT_EQ(1, some.status);
    EXPECT_EQ("vexofileop: " + (scratch / "none") + ": no such file (0x0700)\n", some.err);
    EXPECT_EQ("new", kit::readFile(into + "/from"));
    EXPECT_EQ(2, runTool({"copy", scratch / "none", scratch / "none2", into}).status);
}

TEST_F(CopyCommand, RelativePathsBeginAtTheWorkingDirectory) {
    const ToolResult result = runTool({"copy", "-v", "from", "./into/"}, {.directory = scratch.path()});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(from + " -> " + into + "/from\n", result.out);
}

TEST_F(CopyCommand, DestinationThatShouldBeADirectoryIsRefusedBeforeAnythingIsDone) {
    const ToolResult several = runTool({"copy", from, from, to});
    EXPECT_EQ(2, several.status);
    EXPECT_EQ(0u, several.err.find("vexofileop: " + to + ": several files need a directory as their destination\n"));
    EXPECT_EQ(2, runTool({"copy", from, to + "/"}).status);
    EXPECT_FALSE(kit::exists(to));
}

TEST_F(CopyCommand, MissingParentOfTheDestinationIsTold) {
    const ToolResult result = runTool({"copy", from, scratch / "a/b"});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ(arrow(from, scratch / "a/b") + "path missing or not readable (0x0600)\n", result.err);
}

TEST_F(CopyCommand, DirectoryAsSourceIsRefusedByName) {
    const ToolResult result = runTool({"copy", into, to});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("vexofileop: " + into + ": is a directory; -r copies it with everything in it\n", result.err);
    EXPECT_FALSE(kit::exists(to));
}

TEST_F(CopyCommand, DirectoryInThePlaceOfTheFileIsNeverReplaced) {
    ASSERT_EQ(0, ::mkdir((into + "/from").c_str(), 0755));
    const ToolResult result = runTool({"copy", "-f", from, into});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ(arrow(from, into + "/from") + "the destination is a directory (0xA200)\n", result.err);
}

TEST_F(CopyCommand, PipesAreNotWaitedFor) {
    ASSERT_EQ(0, ::mkfifo((scratch / "pipe").c_str(), 0600));
    const ToolResult source = runTool({"copy", scratch / "pipe", to});
    EXPECT_EQ(2, source.status);
    EXPECT_EQ("vexofileop: " + (scratch / "pipe") + ": is a named pipe, which cannot be copied\n", source.err);
    const ToolResult destination = runTool({"copy", "-f", from, scratch / "pipe"});
    EXPECT_EQ(2, destination.status);
    EXPECT_TRUE(S_ISFIFO(kit::statOf(scratch / "pipe").st_mode));
}

TEST_F(CopyCommand, SameFileIsRefusedUnderAnyNameAndPolicy) {
    ASSERT_EQ(0, ::link(from.c_str(), (scratch / "hard").c_str()));
    ASSERT_EQ(0, ::symlink("from", (scratch / "soft").c_str()));
    for (const char *command : {"copy", "move"}) {
        for (const char *policy : {"-v", "-f", "-n", "-i"}) {
            for (const char *name : {"from", "hard", "soft"}) {
                const ToolResult result = runTool({command, policy, from, scratch / name}, {.input = "y\n"});
                EXPECT_EQ(2, result.status) << command << policy << name;
                EXPECT_EQ(arrow(from, scratch / name) + "source and destination are the same file\n", result.err);
            }
        }
    }
    EXPECT_EQ("new", kit::readFile(from));
    EXPECT_TRUE(S_ISLNK(kit::statOf(scratch / "soft").st_mode));
}

TEST_F(CopyCommand, TwoSourcesOfOneNameDoNotReplaceEachOther) {
    ASSERT_EQ(0, ::mkdir((scratch / "other").c_str(), 0755));
    kit::writeFile(scratch / "other/from", "second");
    const ToolResult result = runTool({"copy", "-f", from, scratch / "other/from", into});
    EXPECT_EQ(1, result.status);
    EXPECT_NE(std::string::npos, result.err.find("just written by this command")) << result.err;
    EXPECT_EQ("new", kit::readFile(into + "/from"));
}

TEST_F(CopyCommand, LinkAsSourceIsFollowedAndALinkToNothingIsNot) {
    ASSERT_EQ(0, ::symlink("from", (scratch / "link").c_str()));
    EXPECT_EQ(0, runTool({"copy", scratch / "link", to}).status);
    EXPECT_TRUE(S_ISREG(kit::statOf(to).st_mode));
    ASSERT_EQ(0, ::symlink("nowhere", (scratch / "dangling").c_str()));
    const ToolResult source = runTool({"copy", scratch / "dangling", scratch / "x"});
    EXPECT_EQ("vexofileop: " + (scratch / "dangling") + ": is a symbolic link that leads nowhere (0x0700)\n",
              source.err);
    // As a destination it is never written through, and replaced where that is asked for.
    EXPECT_EQ(2, runTool({"copy", "-v", from, scratch / "dangling"}).status);
    EXPECT_TRUE(S_ISLNK(kit::statOf(scratch / "dangling").st_mode));
    EXPECT_EQ(0, runTool({"copy", "-f", from, scratch / "dangling"}).status);
    EXPECT_TRUE(S_ISREG(kit::statOf(scratch / "dangling").st_mode));
    EXPECT_FALSE(kit::exists(scratch / "nowhere"));
}

TEST_F(CopyCommand, NamesAreShownOnOneLineAndNeverAsControls) {
    const std::string name = scratch / "a\nb\x1b[31m\xFF";
    kit::writeFile(name, "x");
    const std::string shown = scratch.path() + "/a\\nb\\x1b[31m\\xff";
    EXPECT_EQ(shown + " -> " + to + "\n", runTool({"copy", "-v", name, to}).out);
    EXPECT_EQ(arrow(shown, to) + "destination exists (0xA300)\n", runTool({"copy", name, to}).err);
}

TEST_F(CopyCommand, OddNamesAreCopiedAsTheyAre) {
    for (const char *name : {"[a,b]", "++", "copy", "move", "-f", "--", "{}", " "}) {
        kit::writeFile(scratch / name, name);
        EXPECT_EQ(0, runTool({"copy", "--", name, into}, {.directory = scratch.path()}).status) << name;
        EXPECT_EQ(name, kit::readFile(into + "/" + name));
    }
    EXPECT_EQ(0, runTool({"copy", "[a,b]", "brackets"}, {.directory = scratch.path()}).status);
}

TEST_F(CopyCommand, JsonTellsEachFileAndASummary) {
    kit::writeFile(into + "/old", "x");
    kit::writeFile(scratch / "old", "yy");
    const ToolResult result = runTool({"copy", "--json", "-n", from, scratch / "old", scratch / "none", into});
    EXPECT_EQ(1, result.status);
    const auto lines = parsedLines(result.out);
    ASSERT_EQ(4u, lines.size()) << result.out;
    EXPECT_EQ("file", textIn(lines[0], "event"));
    EXPECT_EQ("copy", textIn(lines[0], "operation"));
    EXPECT_EQ("done", textIn(lines[0], "status"));
    EXPECT_EQ(from, textIn(lines[0], "source"));
    EXPECT_EQ(into + "/from", textIn(lines[0], "destination"));
    EXPECT_EQ("3", textIn(lines[0], "bytes"));
    EXPECT_EQ("skipped", textIn(lines[1], "status"));
    EXPECT_EQ("failed", textIn(lines[2], "status"));
    EXPECT_EQ("{ \"code\": \"0x0700\", \"reason\": \"no such file\" }", textIn(lines[2], "error"));
    EXPECT_EQ("summary", textIn(lines[3], "event"));
    EXPECT_EQ("3", textIn(lines[3], "files"));
    EXPECT_EQ("1", textIn(lines[3], "done"));
    EXPECT_EQ("1", textIn(lines[3], "skipped"));
    EXPECT_EQ("1", textIn(lines[3], "failed"));
    EXPECT_EQ("3", textIn(lines[3], "bytes"));
    EXPECT_EQ("false", textIn(lines[3], "cancelled"));
    EXPECT_EQ("1", textIn(lines[3], "exit_status"));
}

TEST_F(CopyCommand, JsonHoldsEveryNameExactly) {
    const std::string lineFeed = scratch / "a\nb\"\\\x1f", broken = scratch / "caf\xE9";
    kit::writeFile(lineFeed, "x");
    kit::writeFile(broken, "x");
    const auto lines = parsedLines(runTool({"copy", "--json", lineFeed, broken, into}).out);
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ(lineFeed, textIn(lines[0], "source"));
    EXPECT_EQ("(absent)", textIn(lines[0], "source_hex"));
    EXPECT_EQ(scratch / "caf\xEF\xBF\xBD", textIn(lines[1], "source"));
    std::string hex;
    for (const char byte : broken) {
        char text[3];
        std::snprintf(text, sizeof text, "%02x", static_cast<unsigned char>(byte));
        hex += text;
    }
    EXPECT_EQ(hex, textIn(lines[1], "source_hex"));
}

TEST_F(CopyCommand, ReaderThatGoesAwayStopsNothing) {
    const ToolResult result = runTool({"copy", "-v", from, to}, {.outputGone = true});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.err);
    EXPECT_EQ("new", kit::readFile(to));
}

TEST_F(CopyCommand, OutputThatCannotBeWrittenIsTold) {
    const ToolResult result = runTool({"copy", "-v", from, to}, {.outputTo = "/dev/full"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("vexofileop: writing the output failed: No space left on device\n", result.err);
    EXPECT_EQ("new", kit::readFile(to));
}

TEST_F(CopyCommand, OwnerThatCouldNotBeKeptIsTold) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    constexpr uid_t nobody = 65534;
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
    ASSERT_EQ(0, ::chmod(into.c_str(), 0777));
    const ToolResult told = runTool({"copy", from, into}, {.user = nobody});
    if (told.status >= 125) {
        GTEST_SKIP() << "the program cannot be reached by another user here";
    }
    const std::string both = from + " -> " + into;
    EXPECT_EQ(1, told.status);
    EXPECT_EQ("vexofileop: 1 owner not kept: " + both + "/from: owner differs: 0 and 65534 (owner)\n" +
                  "vexofileop: 1 group not kept: " + both + "/from: group differs: 0 and 65534 (group)\n",
              told.err);
    EXPECT_EQ(nobody, kit::statOf(into + "/from").st_uid);
    const ToolResult verbose = runTool({"copy", "-v", "--accept", "owner", from, into + "/second"}, {.user = nobody});
    EXPECT_EQ(1, verbose.status);
    EXPECT_EQ(both + "/second\n" + both + "/second: owner differs: 0 and 65534 (owner)\n" + both +
                  "/second: group differs: 0 and 65534 (group)\n",
              verbose.out);
    const ToolResult accepted =
        runTool({"copy", "--json", "--accept", "owner", "--accept=acl,group", from, into + "/third"}, {.user = nobody});
    EXPECT_EQ(0, accepted.status);
    const auto lines = parsedLines(accepted.out);
    ASSERT_EQ(4u, lines.size()) << accepted.out;
    EXPECT_EQ("done", textIn(lines.at(0), "status"));
    EXPECT_EQ("loss", textIn(lines.at(1), "event"));
    EXPECT_EQ("owner", textIn(lines.at(1), "class"));
    EXPECT_EQ("changed", textIn(lines.at(1), "severity"));
    EXPECT_EQ(from, textIn(lines.at(1), "source"));
    EXPECT_EQ(into + "/third", textIn(lines.at(1), "destination"));
    EXPECT_EQ("owner differs: 0 and 65534", textIn(lines.at(1), "detail"));
    EXPECT_EQ(R"([{"class":"owner","severity":"changed","count":1,"accepted":true},)"
              R"({"class":"group","severity":"changed","count":1,"accepted":true}])",
              compactIn(lines.at(3), "losses"));
}

TEST_F(CopyCommand, UnknownClassesAreRefusedWithTheKnownOnes) {
    for (const char *command : {"copy", "move", "relocate"}) {
        const ToolResult result = runTool({command, "--accept", "owners", from, to});
        EXPECT_EQ(2, result.status);
        EXPECT_NE(std::string::npos, result.err.find("--accept: \"owners\" is no class of losses; they are all, acl"))
            << result.err;
        EXPECT_FALSE(kit::exists(to));
    }
}

TEST_F(CopyCommand, UnreadableSourceIsRefused) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
    ASSERT_EQ(0, ::chmod(into.c_str(), 0777));
    ASSERT_EQ(0, ::chmod(from.c_str(), 0600));
    const ToolResult result = runTool({"copy", from, into}, {.user = 65534});
    if (result.status >= 125) {
        GTEST_SKIP() << "the program cannot be reached by another user here";
    }
    EXPECT_EQ(2, result.status);
    EXPECT_EQ(arrow(from, into + "/from") + "permission denied (0x0300)\n", result.err);
    EXPECT_TRUE(kit::namesIn(into).empty());
}

TEST_F(CopyCommand, FullVolumeLeavesNoHalfFile) {
    std::optional<kit::Volume> volume;
    try {
        volume.emplace(kit::Volume::tmpfs(1 << 20));
    } catch (const kit::Unavailable &missing) {
        GTEST_SKIP() << missing.reason;
    }
    kit::writeFile(from, kit::pattern(4 << 20));
    const ToolResult result = runTool({"copy", from, volume->path()});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ(arrow(from, *volume / "from") + "no space left on the volume (0x2900)\n", result.err);
    EXPECT_TRUE(kit::namesIn(volume->path()).empty());
}

TEST_F(MoveCommand, RenamesTheFile) {
    const ino_t inode = kit::statOf(from).st_ino;
    EXPECT_EQ(0, runTool({"move", from, to}).status);
    EXPECT_FALSE(kit::exists(from));
    EXPECT_EQ(inode, kit::statOf(to).st_ino);
}

TEST_F(MoveCommand, ExistingDestinationFollowsThePolicy) {
    kit::writeFile(to, "old");
    EXPECT_EQ(2, runTool({"move", from, to}).status);
    EXPECT_EQ(0, runTool({"move", "-n", from, to}).status);
    EXPECT_EQ(0, runTool({"move", "-i", from, to}, {.input = "n\n"}).status);
    EXPECT_EQ("new", kit::readFile(from));
    EXPECT_EQ("old", kit::readFile(to));
    const ToolResult both = runTool({"move", "-v", "--keep-both", from, to});
    EXPECT_EQ(from + " -> " + to + " (1)\n", both.out);
    EXPECT_FALSE(kit::exists(from));
    EXPECT_EQ("old", kit::readFile(to));
    EXPECT_EQ(0, runTool({"move", "-f", to + " (1)", to}).status);
    EXPECT_EQ("new", kit::readFile(to));
}

TEST_F(MoveCommand, LinkItselfIsRenamedWhereverItLeads) {
    for (const char *content : {"from", "nowhere", "into"}) {
        ASSERT_EQ(0, ::symlink(content, (scratch / "link").c_str()));
        EXPECT_EQ(0, runTool({"move", scratch / "link", into + "/" + content}).status) << content;
        EXPECT_TRUE(S_ISLNK(kit::statOf(into + "/" + content).st_mode));
        EXPECT_FALSE(kit::exists(scratch / "link"));
    }
    EXPECT_EQ("new", kit::readFile(from));
}

TEST_F(MoveCommand, LinkIsNotReplacedUnasked) {
    ASSERT_EQ(0, ::symlink("nowhere", to.c_str()));
    const ToolResult result = runTool({"move", from, to});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ(arrow(from, to) + "destination exists (0xA300)\n", result.err);
    EXPECT_TRUE(S_ISLNK(kit::statOf(to).st_mode));
}

TEST_F(MoveCommand, AcrossVolumesFilesAndLinksGoAndAPipeStays) {
    std::optional<kit::Volume> volume;
    try {
        volume.emplace(kit::Volume::tmpfs(1 << 20));
    } catch (const kit::Unavailable &missing) {
        GTEST_SKIP() << missing.reason;
    }
    ASSERT_EQ(0, ::mkfifo((scratch / "pipe").c_str(), 0600));
    const ToolResult pipe = runTool({"move", scratch / "pipe", volume->path()});
    EXPECT_EQ(2, pipe.status);
    EXPECT_EQ(arrow(scratch / "pipe", *volume / "pipe") + "a named pipe cannot be moved to another volume\n", pipe.err);
    EXPECT_TRUE(kit::exists(scratch / "pipe"));
    ASSERT_EQ(0, ::symlink("into", (scratch / "link").c_str()));
    EXPECT_EQ(0, runTool({"move", scratch / "link", volume->path()}).status);
    EXPECT_FALSE(kit::exists(scratch / "link"));
    EXPECT_TRUE(S_ISLNK(kit::statOf(*volume / "link").st_mode));
    EXPECT_EQ(0, runTool({"move", from, volume->path()}).status);
    EXPECT_FALSE(kit::exists(from));
    EXPECT_EQ("new", kit::readFile(*volume / "from"));
}

// ---- The other commands, and the tool itself

TEST(Tool, VersionIsPrinted) {
    const ToolResult result = runTool({"--version"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(0u, result.out.find("vexofileop 7."));
}

TEST(Tool, WrongUsageEndsWithTwoAndPointsToTheHelp) {
    for (const Arguments &arguments : {Arguments{},
                                       {"copy"},
                                       {"copy", "x"},
                                       {"copy", "-z", "a", "b"},
                                       {"none"},
                                       {"copy", "", "b"},
                                       {"reflink"},
                                       {"reflink", "check", "a"},
                                       {"remove"},
                                       {"relocate", "/tmp"},
                                       {"index"},
                                       {"notify", "x", "/tmp"},
                                       {"explain", "x"}}) {
        const ToolResult result = runTool(arguments);
        EXPECT_EQ(2, result.status);
        EXPECT_EQ("", result.out);
        EXPECT_EQ(0u, result.err.find("vexofileop: ")) << result.err;
        EXPECT_NE(std::string::npos, result.err.find("--help'.\n")) << result.err;
    }
}

TEST(ExplainCommand, TellsWhatACodeMeans) {
    for (const char *code : {"0xA400", "a400", "0xa400"}) {
        const ToolResult result = runTool({"explain", code});
        EXPECT_EQ(0, result.status);
        EXPECT_EQ(0u, result.out.find("0xA400  file too large for FAT\n  When: ")) << result.out;
    }
    std::istringstream lines(runTool({"explain", "0x0100"}).out);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.size(), 80u) << line;
    }
    const ToolResult unknown = runTool({"explain", "0x1234"});
    EXPECT_EQ(2, unknown.status);
    EXPECT_EQ("vexofileop: 0x1234: no such error code\n", unknown.err);
    const std::string all = runTool({"explain"}).out;
    EXPECT_EQ(39 + 27 + 3 + 1 + 20, std::count(all.begin(), all.end(), '\n'));
    const ToolResult loss = runTool({"explain", "acl-access", "0xA400"});
    EXPECT_EQ(0, loss.status);
    EXPECT_EQ(0u, loss.out.find("acl-access  access ACLs not kept (lost)\n  Meaning: The access ACL is not that of the "
                                "source.\n  What helps: "))
        << loss.out;
    const ToolResult group = runTool({"explain", "acl", "fat", "all"});
    EXPECT_EQ(0, group.status) << group.err;
    EXPECT_EQ(0u, group.out.find("acl  the three kinds of ACL (group)\n"
                                 "  Meaning: It stands for acl-access, acl-default and acl-windows.\n"
                                 "fat  what any FAT volume costs (group)\n"
                                 "  Meaning: It stands for owner, group, mode, "))
        << group.out;
    EXPECT_TRUE(mentions(runTool({"explain", "extra"}).out, "extra  entries that only the second has (of compare)"));
    const ToolResult neither = runTool({"explain", "owners"});
    EXPECT_EQ(2, neither.status);
    EXPECT_NE(std::string::npos, neither.err.find("owners: neither an error code")) << neither.err;
}

TEST(ArchiveCommand, ClearsTheBitOfFilesAndDirectories) {
    const kit::ScratchDirectory scratch;
    kit::writeFile(scratch / "file", "x");
    EXPECT_EQ(0, runTool({"archive", "clear", scratch / "file", scratch.path()}).status);
    ASSERT_EQ(0, ::mkfifo((scratch / "pipe").c_str(), 0600));
    const ToolResult result = runTool({"archive", "clear", scratch / "file", scratch / "none", scratch / "pipe"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("vexofileop: " + (scratch / "none") + ": No such file or directory\nvexofileop: " + (scratch / "pipe") +
                  ": neither a file nor a directory\n",
              result.err);
}

class ReflinkCommand : public ::testing::Test {
  protected:
    // The tool inherits the private /etc.
    void useConfiguration(const std::string &content) {
        try {
            m_etc.emplace(kit::Volume::overlay("/etc"));
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
        kit::writeFile("/etc/vexoinfo.conf", content);
    }

  private:
    std::optional<kit::Volume> m_etc;
};

TEST_F(ReflinkCommand, SwitchGoesOnAndOff) {
    useConfiguration("support_btrfs=\"yes\"\n");
    if (IsSkipped()) {
        return;
    }
    EXPECT_EQ("off\n", runTool({"reflink", "status"}).out);
    EXPECT_EQ(0, runTool({"reflink", "on"}).status);
    EXPECT_EQ("on\n", runTool({"reflink", "status"}).out);
    EXPECT_EQ(0, runTool({"reflink", "off"}).status);
    EXPECT_EQ("off\n", runTool({"reflink", "status"}).out);
}

TEST_F(ReflinkCommand, SwitchIsRefusedWithoutBtrfs) {
    useConfiguration("support_btrfs=\"no\"\n");
    if (IsSkipped()) {
        return;
    }
    const ToolResult result = runTool({"reflink", "on"});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("vexofileop: clone copies are not supported here (0xD900)\n", result.err);
    EXPECT_EQ("off\n", runTool({"reflink", "status"}).out);
}

TEST(ReflinkCheck, TellsWhyNot) {
    const kit::ScratchDirectory scratch;
    kit::writeFile(scratch / "file", "x");
    const ToolResult result = runTool({"reflink", "check", scratch / "none", scratch.path()});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(0u, result.out.find((scratch / "none") + " -> " + scratch.path() + ": no: ")) << result.out;
}

} // namespace
