// vexofileop copy -r, move, remove and relocate on trees: what happens to every entry, and what is said about it.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/slow_file.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

using kit::mentions;
using kit::runTool;
using kit::ToolResult;

std::string linkTargetOf(const std::string &path) {
    char target[4096] = "";
    return ::readlink(path.c_str(), target, sizeof target - 1) < 0 ? "(no link)" : target;
}

void makeDirectory(const std::string &path, mode_t mode = 0755) {
    ASSERT_EQ(0, ::mkdir(path.c_str(), mode));
}

void makeLink(const std::string &target, const std::string &path) {
    ASSERT_EQ(0, ::symlink(target.c_str(), path.c_str()));
}

class Tree : public ::testing::Test {
  protected:
    void SetUp() override {
        makeDirectory(from);
        makeDirectory(from + "/sub", 0750);
        kit::writeFile(from + "/one", "1");
        kit::writeFile(from + "/sub/two", "22");
        makeLink("sub/two", from + "/link");
    }
    // A store beside `path`, as the library writes one.
    static void giveStore(const std::string &path) {
        const size_t slash = path.rfind('/');
        const std::string directory = path.substr(0, slash) + "/@eaDir";
        ::mkdir(directory.c_str(), 0777);
        kit::writeFile(directory + path.substr(slash) + "@VexoEAStream", stream::bytes({{"comment", "kept"}}));
    }
    static std::string storeOf(const std::string &path) {
        const size_t slash = path.rfind('/');
        return path.substr(0, slash) + "/@eaDir" + path.substr(slash) + "@VexoEAStream";
    }
    void expectWholeTree(const std::string &at) const {
        EXPECT_EQ("1", kit::readFile(at + "/one"));
        EXPECT_EQ("22", kit::readFile(at + "/sub/two"));
        EXPECT_EQ("sub/two", linkTargetOf(at + "/link"));
        EXPECT_EQ(0750u, kit::statOf(at + "/sub").st_mode & 07777);
    }

    kit::ScratchDirectory scratch;
    const std::string from = scratch / "from", to = scratch / "to";
};
using CopyTree = Tree;
using MoveTree = Tree;
using RemoveTree = Tree;
using Relocate = Tree;

// A volume of another kind than the scratch directory's, or a skip.
#define ANOTHER_VOLUME(name)                                                                                           \
    std::optional<kit::Volume> name;                                                                                   \
    try {                                                                                                              \
        name.emplace(kit::Volume::tmpfs(4 << 20));                                                                     \
    } catch (const kit::Unavailable &missing) {                                                                        \
        GTEST_SKIP() << missing.reason;                                                                                \
    }

TEST_F(CopyTree, EverythingArrivesAndIsCounted) {
    const timespec times[2] = {{1000, 0}, {2000, 5}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, (from + "/sub").c_str(), times, 0));
    const ToolResult result = runTool({"copy", "-r", from, to});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("", result.err);
    EXPECT_EQ("3 files and 2 directories copied (3 B), 0 skipped, 0 failed, 0 cloned\n", result.out);
    expectWholeTree(to);
    EXPECT_EQ(2000, kit::statOf(to + "/sub").st_mtim.tv_sec);
    expectWholeTree(from);
}

TEST_F(CopyTree, GoesIntoAnExistingDirectory) {
    makeDirectory(to);
    EXPECT_EQ(0, runTool({"copy", "-r", from, to}).status);
    expectWholeTree(to + "/from");
}

TEST_F(CopyTree, DotMeansWhatTheDirectoryHoldsAndDotDotIsRefused) {
    makeDirectory(to);
    EXPECT_EQ(0, runTool({"copy", "-r", from + "/.", to}).status);
    expectWholeTree(to);
    EXPECT_EQ(0, runTool({"copy", "-rf", ".", to}, {.directory = from}).status);
    EXPECT_EQ((std::vector<std::string>{"link", "one", "sub"}), kit::namesIn(to));
    EXPECT_EQ(2, runTool({"copy", "-r", from + "/sub/..", to}).status);
    EXPECT_EQ(2, runTool({"move", from + "/.", to}).status);
    expectWholeTree(from);
}

TEST_F(CopyTree, ReadOnlyDirectoryIsFilledAndReadOnlyAgain) {
    ASSERT_EQ(0, ::chmod((from + "/sub").c_str(), 0550));
    EXPECT_EQ(0, runTool({"copy", "-r", from, to}).status);
    EXPECT_EQ("22", kit::readFile(to + "/sub/two"));
    EXPECT_EQ(0550u, kit::statOf(to + "/sub").st_mode & 07777);
}

TEST_F(CopyTree, StoresGoWithTheirFiles) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root: a store's directory is made as root";
    }
    giveStore(from + "/sub/two");
    EXPECT_EQ(0, runTool({"copy", "-r", from, to}).status);
    EXPECT_EQ(stream::bytes({{"comment", "kept"}}), kit::readFile(storeOf(to + "/sub/two")));
}

TEST_F(CopyTree, StoreThatCouldNotGoAlongIsTold) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    giveStore(from + "/one");
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0777));
    const ToolResult result = runTool({"copy", from + "/one", to}, {.user = 65534});
    if (result.status >= 125) {
        GTEST_SKIP() << "the program cannot be reached by another user here";
    }
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "vexofileop: 1 named stream not kept: " + from + "/one -> " + to +
                                         ": stream comment: only at the first, 4 bytes (stream)\n"))
        << result.err;
    EXPECT_EQ("1", kit::readFile(to));
}

TEST_F(CopyTree, PoliciesHoldForFilesAndLinksInside) {
    makeDirectory(to);
    makeDirectory(to + "/from");
    kit::writeFile(to + "/from/one", "old");
    makeLink("elsewhere", to + "/from/link");
    const ToolResult refused = runTool({"copy", "-r", from, to});
    EXPECT_EQ(1, refused.status);
    EXPECT_TRUE(mentions(refused.err, from + "/one -> " + to + "/from/one: destination exists (0xA300)\n"));
    EXPECT_TRUE(mentions(refused.err, from + "/link -> " + to + "/from/link: destination exists (0xA300)\n"));
    EXPECT_EQ("22", kit::readFile(to + "/from/sub/two"));

    const ToolResult skipped = runTool({"copy", "-rn", from, to});
    EXPECT_EQ(0, skipped.status);
    EXPECT_EQ("vexofileop: 3 skipped, for the destination exists; -v names them\n", skipped.err);
    EXPECT_TRUE(mentions(skipped.out, "3 skipped, 0 failed"));
    EXPECT_EQ("elsewhere", linkTargetOf(to + "/from/link"));

    EXPECT_EQ(0, runTool({"copy", "-r", "--keep-both", from, to}).status);
    EXPECT_EQ("1", kit::readFile(to + "/from/one (1)"));
    EXPECT_EQ("old", kit::readFile(to + "/from/one"));
    EXPECT_EQ(0, runTool({"copy", "-ri", from, to}, {.input = "n\nn\nn\n"}).status);
    EXPECT_EQ("old", kit::readFile(to + "/from/one"));
    EXPECT_EQ(0, runTool({"copy", "-rf", from, to}).status);
    expectWholeTree(to + "/from");
}

TEST_F(CopyTree, WhatCannotBeCopiedIsNamedAndTheRestArrives) {
    ASSERT_EQ(0, ::mkfifo((from + "/pipe").c_str(), 0600));
    kit::writeFile(from + "/._stray", "x");
    makeDirectory(from + "/@tmp");
    const ToolResult result = runTool({"copy", "-r", from, to});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "1 device, pipe or socket not kept: " + from + "/pipe -> " + to +
                                         "/pipe: is a named pipe, which cannot be copied (special-file)\n"));
    EXPECT_TRUE(mentions(result.err, from + "/._stray: "));
    EXPECT_TRUE(
        mentions(result.err, from + "/@tmp -> " + to + "/@tmp: skipped, belongs to the system (not-carried)\n"));
    EXPECT_EQ("3 files and 2 directories copied (3 B), 2 skipped, 1 failed, 0 cloned\n", result.out);
    const ToolResult accepted = runTool({"copy", "-rf", "--accept", "special-file,not-carried", from, to});
    EXPECT_EQ(0, accepted.status) << accepted.err;
    expectWholeTree(to);
}

// A pipe, a socket and, by root, a device, with owner, mode and time of their own.
std::vector<std::string> makeSpecials(const std::string &directory) {
    const timespec times[2] = {{1000, 0}, {2000, 0}};
    std::vector<std::string> made{"pipe", "socket", "device"};
    constexpr mode_t kinds[] = {S_IFIFO, S_IFSOCK, S_IFCHR};
    made.resize(::geteuid() == 0 ? 3 : 2);
    for (size_t at = 0; at < made.size(); ++at) {
        const std::string path = directory + "/" + made[at];
        EXPECT_EQ(0, ::mknod(path.c_str(), kinds[at] | 0600, ::makedev(1, 3)));
        EXPECT_EQ(0, ::chmod(path.c_str(), 0642));
        EXPECT_TRUE(::geteuid() != 0 || ::chown(path.c_str(), 7, 8) == 0);
        EXPECT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0));
    }
    return made;
}

void expectSameSpecial(const struct stat &one, const struct stat &other) {
    EXPECT_EQ(one.st_mode, other.st_mode);
    EXPECT_EQ(one.st_uid, other.st_uid);
    EXPECT_EQ(one.st_gid, other.st_gid);
    EXPECT_EQ(one.st_mtim.tv_sec, other.st_mtim.tv_sec);
    EXPECT_EQ(one.st_rdev, other.st_rdev);
}

TEST_F(CopyTree, SpecialFilesAreMadeAnewOnRequest) {
    const std::vector<std::string> made = makeSpecials(from + "/sub");
    for (const char *how : {"-r", "-rv", "-rf"}) {
        const ToolResult planned = runTool({"plan", "copy", how, "--specials", from, to});
        EXPECT_EQ(0, planned.status) << planned.out << planned.err;
        const ToolResult result = runTool({"copy", how, "--specials", "-T", from, to});
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_EQ("", result.err);
        expectWholeTree(to);
        for (const std::string &name : made) {
            expectSameSpecial(kit::statOf(from + "/sub/" + name), kit::statOf(to + "/sub/" + name));
        }
        EXPECT_EQ(0, runTool({"compare", from, to}).status);
        EXPECT_EQ(made.size() + 1, kit::namesIn(to + "/sub").size());
        if (how != std::string("-rv")) {
            (void)runTool({"remove", "-rf", to});
        }
    }
    EXPECT_EQ(0, runTool({"copy", "--specials", from + "/sub/pipe", scratch / "alone"}).status);
    expectSameSpecial(kit::statOf(from + "/sub/pipe"), kit::statOf(scratch / "alone"));
}

TEST_F(CopyTree, SpecialFileIsReplacedByOneAloneAndReplacesNoneOfAnotherKind) {
    makeDirectory(to);
    ASSERT_EQ(0, ::mkfifo((from + "/pipe").c_str(), 0640));
    ASSERT_EQ(0, ::mkfifo((to + "/pipe").c_str(), 0600));
    const ino_t before = kit::statOf(to + "/pipe").st_ino;
    EXPECT_EQ(1, runTool({"copy", "-r", "--specials", from + "/.", to}).status);
    EXPECT_EQ(before, kit::statOf(to + "/pipe").st_ino);
    EXPECT_EQ(0, runTool({"copy", "-rf", "--specials", from + "/.", to}).status);
    EXPECT_EQ(0640U, kit::statOf(to + "/pipe").st_mode & 07777);
    kit::writeFile(from + "/pipe2", "a file");
    ASSERT_EQ(0, ::mkfifo((to + "/pipe2").c_str(), 0600));
    const ToolResult result = runTool({"copy", "-rf", "--specials", from + "/.", to});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "the destination is a named pipe; not replaced")) << result.err;
    EXPECT_TRUE(S_ISFIFO(kit::statOf(to + "/pipe2").st_mode));
}

TEST_F(CopyTree, DeviceThatThisUserCannotMakeIsALoss) {
    KIT_NEEDS_ROOT("to make a device");
    ASSERT_EQ(0, ::mknod((from + "/device").c_str(), S_IFCHR | 0644, ::makedev(1, 3)));
    makeDirectory(to);
    ASSERT_EQ(0, ::chmod(to.c_str(), 0777));
    ASSERT_EQ(0, ::chmod((scratch / ".").c_str(), 0755));
    const ToolResult planned =
        runTool({"plan", "copy", "-r", "--specials", "--accept", "owner,group", from + "/.", to}, {.user = 65534});
    const ToolResult result =
        runTool({"copy", "-r", "--specials", "--accept", "owner,group", from + "/.", to}, {.user = 65534});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(1, planned.status);
    const std::string line = "is a device, which cannot be made there: Operation not permitted (special-file)\n";
    EXPECT_TRUE(mentions(result.err, "1 device, pipe or socket not kept: ")) << result.err;
    EXPECT_TRUE(mentions(result.err, line)) << result.err;
    EXPECT_TRUE(mentions(planned.out, "is a device, which cannot be made there")) << planned.out;
    EXPECT_EQ("1", kit::readFile(to + "/one"));
    EXPECT_FALSE(kit::exists(to + "/device"));
}

TEST_F(CopyTree, LinksThatTheVolumeCannotHoldAreNamedAndTheRestArrives) {
    makeDirectory(to);
    ::setenv("VEXOFILEOP_FSTYPES", (to + "=0").c_str(), 1);
    const ToolResult result = runTool({"copy", "-r", from, to});
    ::unsetenv("VEXOFILEOP_FSTYPES");
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "1 symbolic link not kept: " + from + "/link -> " + to +
                                         "/from/link: is a symbolic link, which the destination's volume cannot hold "
                                         "(symbolic-link)\n"))
        << result.err;
    EXPECT_TRUE(mentions(result.err, "2 modes not kept, for example ")) << result.err;
    EXPECT_EQ("1", kit::readFile(to + "/from/one"));
    EXPECT_EQ("22", kit::readFile(to + "/from/sub/two"));
}

TEST_F(CopyTree, MaxErrorsEndsAtThatFailure) {
    makeDirectory(to);
    makeDirectory(to + "/from");
    for (const char *name : {"one", "link", "sub"}) {
        kit::writeFile(to + "/from/" + name, "in the way");
    }
    const ToolResult result = runTool({"copy", "-r", "--max-errors", "2", from, to});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ(2, std::count(result.err.begin(), result.err.end(), '>')) << result.err;
    EXPECT_TRUE(mentions(result.err, "vexofileop: stopped after 2 failures (--max-errors)\n")) << result.err;
    const ToolResult planned = runTool({"plan", "copy", "-r", "--max-errors", "2", from, to});
    EXPECT_TRUE(mentions(planned.out, " 2 failed ")) << planned.out;
    EXPECT_FALSE(mentions(runTool({"copy", "-r", "--max-errors", "4", from, to}).err, "stopped"));
    for (const char *wrong : {"0", "-1", "two", "", "2x"}) {
        EXPECT_EQ(2, runTool({"copy", "-r", std::string("--max-errors=") + wrong, from, to}).status) << wrong;
    }
}

TEST_F(CopyTree, StopOnErrorEndsAtTheFirstFailure) {
    makeDirectory(to);
    makeDirectory(to + "/from");
    for (const char *name : {"one", "link", "sub"}) {
        kit::writeFile(to + "/from/" + name, "in the way");
    }
    const ToolResult result = runTool({"copy", "-r", "--stop-on-error", from, to});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ(1, std::count(result.err.begin(), result.err.end(), '>'));
    EXPECT_TRUE(mentions(result.err, "vexofileop: stopped at the first failure (--stop-on-error)\n"));
}

// Nobody takes half a directory for one that is there.
TEST_F(CopyTree, WhatAStopLeftUnfinishedIsCancelled) {
    const std::string done = "\"event\":\"directory\",\"operation\":\"copy\",\"status\":\"done\"";
    const std::string cancelled = "\"event\":\"directory\",\"operation\":\"copy\",\"status\":\"cancelled\"";
    makeDirectory(to);
    makeDirectory(to + "/from");
    for (const char *name : {"one", "link"}) {
        kit::writeFile(to + "/from/" + name, "in the way");
    }
    for (const kit::Arguments &option : {kit::Arguments{"--stop-on-error"}, {"--max-errors", "1"}}) {
        kit::Arguments arguments{"copy", "-r", "--json"};
        arguments.insert(arguments.end(), option.begin(), option.end());
        arguments.insert(arguments.end(), {from, to});
        const ToolResult result = runTool(arguments);
        EXPECT_TRUE(mentions(result.out, cancelled)) << result.out;
        EXPECT_FALSE(mentions(result.out, done)) << result.out;
        EXPECT_TRUE(mentions(result.out, "\"directories\":0,")) << result.out;
    }
    const ToolResult whole = runTool({"copy", "-r", "--json", from, to}); // failed, and not stopped
    EXPECT_FALSE(mentions(whole.out, cancelled)) << whole.out;
    EXPECT_TRUE(mentions(whole.out, done)) << whole.out;
}

TEST_F(CopyTree, IntoItselfIsRefusedBeforeAnythingIsWritten) {
    makeLink(from + "/sub", scratch / "alias");
    for (const std::string &place : {from + "/new", from + "/sub/new", scratch / "alias/new", from + "/sub/.."}) {
        for (const char *command : {"copy", "move"}) {
            const ToolResult result =
                command[0] == 'c' ? runTool({"copy", "-r", from, place}) : runTool({"move", from, place});
            EXPECT_EQ(2, result.status) << place;
            EXPECT_TRUE(mentions(result.err, "a directory cannot be ")) << result.err;
        }
    }
    EXPECT_EQ((std::vector<std::string>{"link", "one", "sub"}), kit::namesIn(from));
    EXPECT_EQ((std::vector<std::string>{"two"}), kit::namesIn(from + "/sub"));
}

TEST_F(CopyTree, LinkInThePlaceOfADirectoryIsNotFollowed) {
    makeDirectory(to);
    makeDirectory(to + "/from");
    makeDirectory(scratch / "elsewhere");
    makeLink(scratch / "elsewhere", to + "/from/sub");
    const ToolResult result = runTool({"copy", "-rf", from, to});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "the destination is a symbolic link, not a directory (0xA000)\n"));
    EXPECT_TRUE(kit::namesIn(scratch / "elsewhere").empty());
}

TEST_F(CopyTree, SourcesOfOneNameAreNotMixed) {
    makeDirectory(scratch / "other");
    makeDirectory(scratch / "other/from");
    kit::writeFile(scratch / "other/from/three", "3");
    makeDirectory(to);
    const ToolResult result = runTool({"copy", "-rf", from, scratch / "other/from", to});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "just written by this command; not merged"));
    EXPECT_FALSE(kit::exists(to + "/from/three"));
    expectWholeTree(to + "/from");
}

TEST_F(CopyTree, DepthCostsNoDescriptors) {
    std::string deep = from;
    for (int level = 0; level < 300; ++level) {
        deep += "/d";
        makeDirectory(deep);
    }
    kit::writeFile(deep + "/leaf", "leaf");
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    const rlimit soft{64, before.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &soft));
    const ToolResult copied = runTool({"copy", "-r", from, to});
    const ToolResult removed = runTool({"remove", "-r", to});
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(0, copied.status) << copied.err;
    EXPECT_EQ("leaf", kit::readFile(deep + "/leaf"));
    EXPECT_EQ(0, removed.status) << removed.err;
    EXPECT_FALSE(kit::exists(to));
}

TEST_F(CopyTree, JsonTellsEachEntryAndASummary) {
    const ToolResult result = runTool({"copy", "-r", "--json", from, to});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(6, std::count(result.out.begin(), result.out.end(), '\n')) << result.out;
    EXPECT_TRUE(
        mentions(result.out, R"({"event":"link","operation":"copy","status":"done","source":")" + from + "/link"));
    EXPECT_TRUE(mentions(result.out, R"({"event":"directory","operation":"copy","status":"done","source":")" + from));
    EXPECT_TRUE(mentions(result.out,
                         R"({"event":"summary","operation":"copy","files":3,"directories":2,"done":3,)"
                         R"("skipped":0,"failed":0,"cloned":0,"bytes":3,"cancelled":false,"exit_status":0})"));
}

TEST_F(CopyTree, CtrlCLeavesNoHalfFileAndTellsWhatWasCopied) {
    std::optional<kit::SlowFile> slow;
    try {
        slow.emplace(64 << 20);
    } catch (const kit::Unavailable &missing) {
        GTEST_SKIP() << missing.reason;
    }
    const std::string path = slow->path();
    const std::string directory = path.substr(0, path.rfind('/'));
    slow->allow(9 << 20);
    kit::ToolOnTerminal tool({"copy", "-r", "--no-progress", directory, to});
    ASSERT_TRUE(slow->waitedFor());
    tool.type("\x03");
    ASSERT_TRUE(tool.takes(SIGINT));
    slow->allowAll();
    const ToolResult result = tool.finish();
    EXPECT_EQ(130, result.status);
    EXPECT_TRUE(mentions(result.out, "stopped; 0 files copied")) << result.out;
    EXPECT_TRUE(kit::namesIn(to).empty());
}

TEST_F(MoveTree, IsOneRenameOnOneVolume) {
    KIT_NEEDS_TO_MAKE_STORES();
    giveStore(from);
    const ino_t inode = kit::statOf(from + "/one").st_ino;
    EXPECT_EQ(0, runTool({"move", from, to}).status);
    EXPECT_FALSE(kit::exists(from));
    EXPECT_EQ(inode, kit::statOf(to + "/one").st_ino);
    expectWholeTree(to);
    EXPECT_TRUE(kit::exists(storeOf(to)));
    EXPECT_FALSE(kit::exists(storeOf(from)));
}

TEST_F(MoveTree, LinksTakeTheirStoreAlong) {
    KIT_NEEDS_TO_MAKE_STORES();
    makeLink("one", from + "/moved");
    giveStore(from + "/moved");
    EXPECT_EQ(0, runTool({"move", from + "/moved", from + "/renamed"}).status);
    EXPECT_TRUE(kit::exists(storeOf(from + "/renamed")));
    EXPECT_FALSE(kit::exists(storeOf(from + "/moved")));
}

TEST_F(MoveTree, AcrossVolumesNothingStaysBehind) {
    ANOTHER_VOLUME(volume);
    giveStore(from + "/one");
    const ToolResult result = runTool({"move", from, *volume / "there"});
    EXPECT_EQ(0, result.status) << result.err;
    expectWholeTree(*volume / "there");
    EXPECT_TRUE(kit::exists(storeOf(*volume / "there/one")));
    EXPECT_FALSE(kit::exists(from));
}

TEST_F(MoveTree, AcrossVolumesWhatCannotGoStaysAndIsNamed) {
    ANOTHER_VOLUME(volume);
    ASSERT_EQ(0, ::mkfifo((from + "/pipe").c_str(), 0600));
    const ToolResult result = runTool({"move", from, *volume / "there"});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "a named pipe cannot be moved to another volume (special-file)\n"));
    EXPECT_TRUE(mentions(result.err, from + ": the source directory stays, with what was not moved\n"));
    EXPECT_EQ((std::vector<std::string>{"pipe"}), kit::namesIn(from));
    expectWholeTree(*volume / "there");
}

TEST_F(MoveTree, AcrossVolumesSpecialFilesGoOnRequest) {
    ANOTHER_VOLUME(volume);
    const std::vector<std::string> made = makeSpecials(from);
    std::vector<struct stat> before;
    for (const std::string &name : made) {
        before.push_back(kit::statOf(from + "/" + name));
    }
    const ToolResult result = runTool({"move", "--specials", from, *volume / "there"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_FALSE(kit::exists(from));
    for (size_t at = 0; at < made.size(); ++at) {
        expectSameSpecial(before[at], kit::statOf(*volume / "there/" + made[at]));
    }
    expectWholeTree(*volume / "there");
}

TEST_F(MoveTree, MergesAndKeepsWhatIsInTheWay) {
    makeDirectory(to);
    makeDirectory(to + "/from");
    kit::writeFile(to + "/from/one", "old");
    EXPECT_EQ(1, runTool({"move", from, to}).status);
    EXPECT_EQ("old", kit::readFile(to + "/from/one"));
    EXPECT_EQ("1", kit::readFile(from + "/one"));
    EXPECT_EQ("22", kit::readFile(to + "/from/sub/two"));
    EXPECT_EQ((std::vector<std::string>{"one"}), kit::namesIn(from));
    EXPECT_EQ(0, runTool({"move", "-f", from, to}).status);
    expectWholeTree(to + "/from");
    EXPECT_FALSE(kit::exists(from));
}

TEST_F(RemoveTree, FileGoesWithItsStore) {
    giveStore(from + "/one");
    giveStore(from + "/two");
    const ToolResult result = runTool({"remove", "-v", from + "/one"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(from + "/one\n", result.out);
    EXPECT_FALSE(kit::exists(from + "/one"));
    EXPECT_FALSE(kit::exists(storeOf(from + "/one")));
    EXPECT_TRUE(kit::exists(storeOf(from + "/two")));
}

TEST_F(RemoveTree, TreeGoesWithAllStoresAndLinksAreNotFollowed) {
    makeDirectory(scratch / "elsewhere");
    kit::writeFile(scratch / "elsewhere/precious", "p");
    makeLink(scratch / "elsewhere", from + "/out");
    giveStore(from);
    giveStore(from + "/one");
    giveStore(from + "/gone long ago");
    const ToolResult result = runTool({"remove", "-r", from});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("6 removed, 0 kept, 0 failed\n", result.out);
    EXPECT_FALSE(kit::exists(from));
    EXPECT_FALSE(kit::exists(storeOf(from)));
    EXPECT_EQ("p", kit::readFile(scratch / "elsewhere/precious"));
}

TEST_F(RemoveTree, DirectoryNeedsTheOptionAndSomePathsAreNeverRemoved) {
    const ToolResult result = runTool({"remove", from});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("vexofileop: " + from + ": is a directory; -r removes it with everything in it\n", result.err);
    for (const char *path : {"/", "//", ".", "..", "sub/..", "sub/.", "./", "../"}) {
        const ToolResult refused = runTool({"remove", "-rf", path}, {.directory = from});
        EXPECT_EQ(2, refused.status) << path;
        EXPECT_TRUE(mentions(refused.err, "never removed")) << path;
    }
    makeLink("sub", from + "/alias");
    EXPECT_EQ(2, runTool({"remove", "-r", from + "/alias/"}).status);
    expectWholeTree(from);
}

TEST_F(RemoveTree, MissingIsAFailureUnlessForced) {
    const ToolResult result = runTool({"remove", scratch / "none", from + "/one"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("vexofileop: " + (scratch / "none") + ": no such file (0x0700)\n", result.err);
    EXPECT_FALSE(kit::exists(from + "/one"));
    EXPECT_EQ(0, runTool({"remove", "-f", scratch / "none"}).status);
    EXPECT_EQ(0, runTool({"remove", "-f"}).status);
}

TEST_F(RemoveTree, AsksBeforeEachAndKeepsWhatIsDenied) {
    const ToolResult result = runTool({"remove", "-ri", from + "/sub", from + "/one"}, {.input = "y\nn\ny\n"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("22", kit::readFile(from + "/sub/two"));
    EXPECT_FALSE(kit::exists(from + "/one"));
    EXPECT_TRUE(mentions(result.out, "1 removed, 1 kept, 0 failed"));
}

TEST_F(RemoveTree, CompanionsGoWithTheirFilesAndAreNotCounted) {
    ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=0").c_str(), 1);
    for (const char *name : {"/a", "/._a", "/b", "/._b", "/._of nobody"}) {
        kit::writeFile(from + name, "x");
    }
    const ToolResult asked = runTool({"remove", "-ri", from + "/sub"}, {.input = "y\ny\ny\n"});
    const ToolResult result = runTool({"remove", "-r", from});
    ::unsetenv("VEXOFILEOP_FSTYPES");
    EXPECT_EQ("2 removed, 0 kept, 0 failed\n", asked.out);
    EXPECT_EQ("6 removed, 0 kept, 0 failed\n", result.out) << result.err; // the tree, one, link, a, b, "._of nobody"
    EXPECT_FALSE(kit::exists(from));
}

TEST_F(RemoveTree, EmptyDirectoryThatMayNotBeReadGoes) {
    ASSERT_EQ(0, ::chmod(from.c_str(), 0777));
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0777));
    makeDirectory(from + "/closed", 0);
    const ToolResult result = runTool({"remove", "-r", from + "/closed"}, {.user = ::geteuid() == 0 ? 65534U : 0U});
    if (result.status >= 125) {
        GTEST_SKIP() << "the program cannot be reached by another user here";
    }
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_FALSE(kit::exists(from + "/closed"));
}

TEST_F(RemoveTree, EmptyDirectoryGoesWithItsOption) {
    makeDirectory(from + "/empty");
    giveStore(from + "/empty");
    giveStore(from + "/empty/gone long ago");
    const ToolResult result = runTool({"remove", "-d", from + "/empty", from + "/sub", from + "/one"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("vexofileop: " + from + "/sub: is not empty; -r removes it with everything in it\n", result.err);
    EXPECT_EQ((std::vector<std::string>{"link", "sub"}), kit::namesIn(from));
}

TEST_F(RemoveTree, WhatIsKeptForAFileThatIsGoneGoes) {
    giveStore(scratch / "gone");
    const ToolResult kept = runTool({"remove", "-i", scratch / "gone"}, {.input = "n\n"});
    EXPECT_TRUE(mentions(kept.err, "remove what is left of " + (scratch / "gone") + "? [y/N] "));
    EXPECT_TRUE(kit::exists(storeOf(scratch / "gone")));
    const ToolResult result = runTool({"remove", "--json", scratch / "gone"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("vexofileop: " + (scratch / "gone") + ": was gone already; what was kept beside it is removed\n",
              result.err);
    EXPECT_TRUE(mentions(result.out, "\"status\":\"done\",\"path\":\"" + (scratch / "gone") + "\",\"warnings\":[{"));
    EXPECT_FALSE(kit::exists(scratch / "@eaDir"));
}

TEST_F(RemoveTree, JsonTellsEachEntryAndASummary) {
    const ToolResult result = runTool({"remove", "--json", from + "/one", from});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("{\"event\":\"file\",\"operation\":\"remove\",\"status\":\"done\",\"path\":\"" + from +
                  "/one\"}\n{\"event\":\"directory\",\"operation\":\"remove\",\"status\":\"failed\",\"path\":\"" +
                  from +
                  "\",\"error\":{\"reason\":\"is a directory; -r removes it with everything in it\"}}\n"
                  "{\"event\":\"summary\",\"operation\":\"remove\",\"done\":1,\"skipped\":0,\"failed\":1,"
                  "\"cancelled\":false,\"exit_status\":1}\n",
              result.out);
}

TEST_F(Relocate, TakesThePlaceOfTheDestination) {
    makeDirectory(to);
    kit::writeFile(to + "/old", "x");
    const ToolResult result = runTool({"relocate", "-y", from, to});
    EXPECT_EQ(0, result.status) << result.err;
    expectWholeTree(to);
    EXPECT_EQ(0755u, kit::statOf(to).st_mode & 07777);
    EXPECT_FALSE(kit::exists(to + "/old"));
    EXPECT_FALSE(kit::exists(from));
    EXPECT_FALSE(kit::exists(scratch / "@tmp"));
}

// Of stores in "._" files the library opens to everybody what it carries them for.
TEST_F(Relocate, OpensTheDirectoryToNobodyWhereStoresAreDoubles) {
    ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=5").c_str(), 1);
    const ToolResult set = runTool({"ea", "set", from, "note", "n"});
    const ToolResult result = runTool({"relocate", "-y", from, to});
    const ToolResult note = runTool({"ea", "get", to, "note"});
    ::unsetenv("VEXOFILEOP_FSTYPES");
    EXPECT_EQ(0, set.status) << set.err;
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("n", note.out);
    EXPECT_EQ(0755u, kit::statOf(to).st_mode & 07777);
    EXPECT_FALSE(kit::exists(from));
}

TEST_F(Relocate, KeepsTheSourceWhereThatIsAskedOrSomethingWouldBeLost) {
    EXPECT_EQ(0, runTool({"relocate", "-y", "--keep-source", from, to}).status);
    expectWholeTree(from);
    expectWholeTree(to);
    ASSERT_EQ(0, ::mkfifo((from + "/sub/pipe").c_str(), 0600));
    const ToolResult result = runTool({"relocate", "-y", from, to});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(
        mentions(result.err, "1 device, pipe or socket not kept: " + from + "/sub/pipe -> " + to + "/sub/pipe: "));
    EXPECT_TRUE(mentions(result.err, "(special-file)\n"));
    EXPECT_TRUE(mentions(result.err, "so " + from + " stays as it is; --accept special-file removes it\n"));
    expectWholeTree(from);
    const ToolResult accepted = runTool({"relocate", "-y", "--json", "--accept", "special-file", from, to});
    EXPECT_EQ(0, accepted.status) << accepted.err;
    EXPECT_EQ(0U, accepted.out.find("{\"event\":\"loss\",\"class\":\"special-file\"")) << accepted.out;
    EXPECT_FALSE(kit::exists(from));
    expectWholeTree(to);
}

// A relocation that is asked for them brings them, tells so beforehand, and has nothing to keep the source for.
TEST_F(Relocate, BringsSpecialFilesWhereThatIsAsked) {
    std::map<std::string, struct stat> before;
    for (const std::string &name : makeSpecials(from + "/sub")) {
        before[name] = kit::statOf(from + "/sub/" + name);
    }
    const ToolResult planned = runTool({"relocate", "--dry-run", "--specials", from, to});
    EXPECT_EQ(0, planned.status) << planned.out << planned.err;
    const ToolResult result = runTool({"relocate", "-y", "--specials", from, to});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("", result.err);
    EXPECT_FALSE(kit::exists(from));
    for (const auto &[name, status] : before) {
        expectSameSpecial(status, kit::statOf(to + "/sub/" + name));
        (void)::unlink((to + "/sub/" + name).c_str());
    }
    expectWholeTree(to);
}

TEST_F(Relocate, SaysWhatItDoesAndNeedsConsent) {
    makeDirectory(to);
    const ToolResult script = runTool({"relocate", from, to}, {.input = "y\n"});
    EXPECT_EQ(2, script.status);
    EXPECT_TRUE(mentions(script.err, "  3. What stands at " + to + " now IS REMOVED WITH EVERYTHING IN IT.\n"));
    EXPECT_TRUE(mentions(script.err, "-y goes ahead without asking\n"));
    expectWholeTree(from);
    kit::ToolOnTerminal denied({"relocate", from, to});
    ASSERT_TRUE(denied.shows("go ahead? [y/N] "));
    denied.type("n\n");
    EXPECT_EQ(2, denied.finish().status);
    expectWholeTree(from);
    kit::ToolOnTerminal agreed({"relocate", from, to});
    ASSERT_TRUE(agreed.shows("go ahead? [y/N] "));
    agreed.type("y\n");
    EXPECT_EQ(0, agreed.finish().status);
    expectWholeTree(to);
}

TEST_F(Relocate, PlacesThatWouldDestroyTheSourceAreRefused) {
    for (const auto &[source, destination] : {std::pair(from, from),
                                              {from, from + "/sub/new"},
                                              {from + "/sub", from},
                                              {from + "/one", to},
                                              {from, scratch / "@tmp"},
                                              {from, scratch / "none/to"}}) {
        EXPECT_EQ(2, runTool({"relocate", "-y", source, destination}).status) << source << " " << destination;
    }
    expectWholeTree(from);
}

TEST_F(Relocate, EndsWithTheNumberOfTheSignalThatStopsIt) {
    std::optional<kit::SlowFile> slow;
    try {
        slow.emplace(64 << 20);
    } catch (const kit::Unavailable &missing) {
        GTEST_SKIP() << missing.reason;
    }
    makeDirectory(to);
    kit::writeFile(to + "/old", "x");
    const std::string path = slow->path(), directory = path.substr(0, path.rfind('/'));
    // A volume of its own, which can only be kept.
    EXPECT_EQ(2, runTool({"relocate", "-y", directory, to}).status);
    slow->allow(9 << 20);
    kit::ToolOnTerminal tool({"relocate", "-y", "--json", "--keep-source", directory, to});
    ASSERT_TRUE(slow->waitedFor());
    tool.send(SIGTERM);
    ASSERT_TRUE(tool.takes(SIGTERM));
    slow->allowAll();
    const ToolResult result = tool.finish();
    EXPECT_EQ(143, result.status);
    EXPECT_TRUE(mentions(result.out, "stopped; " + directory + " is as it was")) << result.out;
    EXPECT_TRUE(mentions(result.out, "\"status\":\"failed\"")) << result.out;
    EXPECT_TRUE(
        mentions(result.out, "\"in_place\":false,\"stopped_by\":\"signal\",\"cancelled\":true,\"exit_status\":143"))
        << result.out;
    EXPECT_EQ("x", kit::readFile(to + "/old"));
    EXPECT_EQ((std::vector<std::string>{"from", "to"}), kit::namesIn(scratch.path()));
}

TEST_F(Relocate, SaysWhatASecondRunGoesOnFrom) {
    makeDirectory(to);
    kit::writeFile(to + "/old", "x");
    if (std::system(("chattr +i " + to + "/old 2>/dev/null").c_str()) != 0) {
        GTEST_SKIP() << "not root, or a volume without immutable files";
    }
    const ToolResult result = runTool({"relocate", "-y", from, to});
    EXPECT_EQ(1, result.status);
    expectWholeTree(to);
    EXPECT_TRUE(mentions(result.err, "what is left of the old one is in " + scratch.path() + "/.vexofileop-"));
    EXPECT_TRUE(mentions(result.err, "the same command again goes on from here")) << result.err;
    const ToolResult explained = runTool({"relocate", from, to});
    EXPECT_TRUE(mentions(explained.err, "was stopped when the copy was in place") ||
                mentions(explained.err, "was stopped while the source was removed"))
        << explained.err;
    EXPECT_EQ(0, std::system(("chattr -i " + scratch.path() + "/.vexofileop-*/old/old").c_str()));
    EXPECT_EQ(0, runTool({"relocate", "-y", from, to}).status);
    expectWholeTree(to);
    EXPECT_EQ((std::vector<std::string>{"to"}), kit::namesIn(scratch.path()));
}

TEST_F(Relocate, WhatLiesInATmpDirectoryBesideItStays) {
    makeDirectory(scratch / "@tmp");
    kit::writeFile(scratch / "@tmp/other", "x");
    EXPECT_EQ(0, runTool({"relocate", "-y", from, to}).status);
    expectWholeTree(to);
    EXPECT_EQ("x", kit::readFile(scratch / "@tmp/other"));
}

} // namespace
