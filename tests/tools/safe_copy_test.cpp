// vexofileop copy and move, where something is in the way, fails or is stopped: what stood there stays until the new
// one is whole, and what cannot be carried is told.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <thread>
#include <unistd.h>

namespace {

using kit::mentions;
using kit::runTool;
using kit::ToolResult;

class SafeCopy : public ::testing::Test {
  protected:
    void SetUp() override {
        kit::writeFile(from, "new");
        kit::writeFile(to, "old");
    }
    void directory(const std::string &name) const { ASSERT_EQ(0, ::mkdir((scratch / name).c_str(), 0755)); }
    void giveStore(const std::string &name, const std::string &content) const {
        ::mkdir((scratch / "@eaDir").c_str(), 0777);
        kit::writeFile(storeOf(name), content);
    }
    std::string storeOf(const std::string &name) const { return scratch / ("@eaDir/" + name + "@VexoEAStream"); }
    static bool isRoot() { return ::geteuid() == 0; }

    kit::ScratchDirectory scratch;
    const std::string from = scratch / "from", to = scratch / "to";
};
using SafeMove = SafeCopy;

#define NEEDS_ROOT()                                                                                                   \
    if (!isRoot()) {                                                                                                   \
        GTEST_SKIP() << "needs root";                                                                                  \
    }

TEST_F(SafeCopy, FailedReplacementLeavesTheOldFileAndItsStore) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    kit::writeFile(scratch / "big", kit::pattern(3 << 20));
    kit::writeFile(volume / "file", "old");
    ASSERT_EQ(0, ::mkdir((volume / "@eaDir").c_str(), 0777));
    kit::writeFile(volume / "@eaDir/file@VexoEAStream", "stream");
    EXPECT_EQ(2, runTool({"copy", "-f", scratch / "big", volume / "file"}).status);
    EXPECT_EQ("old", kit::readFile(volume / "file"));
    EXPECT_EQ("stream", kit::readFile(volume / "@eaDir/file@VexoEAStream"));
    EXPECT_EQ((std::vector<std::string>{"@eaDir", "file"}), kit::namesIn(volume.path()));
}

TEST_F(SafeCopy, ReplacedFileKeepsNothingOfTheOldOne) {
    giveStore("to", "old stream");
    kit::setAttribute(to, "user.old", "x");
    ASSERT_EQ(0, ::link(to.c_str(), (scratch / "hard").c_str()));
    EXPECT_EQ(0, runTool({"copy", "-f", from, to}).status);
    EXPECT_EQ("new", kit::readFile(to));
    EXPECT_FALSE(kit::exists(storeOf("to")));
    EXPECT_EQ("", kit::attribute(to, "user.old"));
    EXPECT_EQ("old", kit::readFile(scratch / "hard"));
    EXPECT_EQ("x", kit::attribute(scratch / "hard", "user.old"));
}

TEST_F(SafeMove, ReplacedFileKeepsNothingOfTheOldOne) {
    giveStore("to", "old stream");
    EXPECT_EQ(0, runTool({"move", "-f", from, to}).status);
    EXPECT_EQ("new", kit::readFile(to));
    EXPECT_FALSE(kit::exists(storeOf("to")));
}

TEST_F(SafeCopy, NewFileDoesNotTakeTheStoreThatAnotherOneLeft) {
    giveStore("fresh", "orphan");
    giveStore("second", "orphan");
    EXPECT_EQ(0, runTool({"copy", from, scratch / "fresh"}).status);
    EXPECT_FALSE(kit::exists(storeOf("fresh")));
    EXPECT_EQ(0, runTool({"move", from, scratch / "second"}).status);
    EXPECT_FALSE(kit::exists(storeOf("second")));
}

TEST_F(SafeCopy, StoreOfTheNewFileTakesThePlaceOfTheOldOne) {
    NEEDS_ROOT();
    giveStore("from", stream::bytes({{"comment", "new"}}));
    giveStore("to", stream::bytes({{"comment", "old"}, {"other", "old"}}));
    EXPECT_EQ(0, runTool({"copy", "-f", from, to}).status);
    EXPECT_EQ(kit::readFile(storeOf("from")), kit::readFile(storeOf("to")));
    EXPECT_EQ((std::vector<std::string>{"from@VexoEAStream", "to@VexoEAStream"}), kit::namesIn(scratch / "@eaDir"));
    EXPECT_EQ((std::vector<std::string>{"@eaDir", "from", "to"}), kit::namesIn(scratch.path()));
}

TEST_F(SafeCopy, SetIdBitsArriveOnReplacedFilesAndMergedDirectories) {
    directory("tree");
    directory("out");
    directory("out/tree");
    ASSERT_EQ(0, ::chmod(from.c_str(), 06755));
    ASSERT_EQ(0, ::chmod((scratch / "tree").c_str(), 02775));
    EXPECT_EQ(0, runTool({"copy", "-f", from, to}).status);
    EXPECT_EQ(06755u, kit::statOf(to).st_mode & 07777);
    EXPECT_EQ(0, runTool({"copy", "-r", scratch / "tree", scratch / "out"}).status);
    EXPECT_EQ(02775u, kit::statOf(scratch / "out/tree").st_mode & 07777);
}

TEST_F(SafeCopy, LinksBelowTheDestinationAreReplaced) {
    directory("tree");
    directory("out");
    directory("out/tree");
    kit::writeFile(scratch / "tree/file", "new");
    ASSERT_EQ(0, ::symlink("../../to", (scratch / "out/tree/file").c_str()));
    EXPECT_EQ(0, runTool({"copy", "-rf", scratch / "tree", scratch / "out"}).status);
    EXPECT_EQ("old", kit::readFile(to));
    EXPECT_TRUE(S_ISREG(kit::statOf(scratch / "out/tree/file").st_mode));
    ASSERT_EQ(0, ::symlink("to", (scratch / "link").c_str()));
    EXPECT_EQ(0, runTool({"move", "-f", from, scratch / "link"}).status);
    EXPECT_EQ("old", kit::readFile(to));
    EXPECT_EQ("new", kit::readFile(scratch / "link"));
}

TEST_F(SafeCopy, OwnReadOnlyFileIsReplaced) {
    ASSERT_EQ(0, ::chmod(to.c_str(), 0444));
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0777));
    ASSERT_EQ(0, ::chmod(from.c_str(), 0644));
    if (isRoot()) {
        ASSERT_EQ(0, ::chown(to.c_str(), 1234, 1234));
    }
    EXPECT_NE(2, runTool({"copy", "-f", from, to}, {.user = isRoot() ? uid_t{1234} : 0}).status);
    EXPECT_EQ("new", kit::readFile(to));
}

TEST_F(SafeCopy, WhereNothingCanBeMadeTheFileIsWrittenInPlaceAndThatIsTold) {
    NEEDS_ROOT();
    directory("closed");
    const std::string file = scratch / "closed/file";
    kit::writeFile(file, "old and longer", 0666);
    ASSERT_EQ(0, ::chmod(file.c_str(), 0666));
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
    const auto inode = kit::statOf(file).st_ino;
    const ToolResult result = runTool({"copy", "-f", from, file}, {.user = 1234});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "written in place")) << result.err;
    EXPECT_EQ("new", kit::readFile(file));
    EXPECT_EQ(inode, kit::statOf(file).st_ino);
}

TEST_F(SafeCopy, AttributesOfTheSystemGoAlong) {
    NEEDS_ROOT();
    constexpr unsigned char capability[20] = {1, 0, 0, 2, 0, 4};
    if (::setxattr(from.c_str(), "security.capability", capability, sizeof capability, 0) != 0 ||
        ::setxattr(from.c_str(), "trusted.note", "t", 1, 0) != 0) {
        GTEST_SKIP() << "this volume or this root cannot set such attributes";
    }
    directory("tree");
    directory("tree/sub");
    ASSERT_EQ(0, ::rename(from.c_str(), (scratch / "tree/sub/file").c_str()));
    ASSERT_EQ(0, ::setxattr((scratch / "tree/sub").c_str(), "trusted.note", "d", 1, 0));
    for (const char *how : {"-r", "-rv"}) {
        const std::string out = scratch / how;
        EXPECT_EQ(0, runTool({"copy", how, scratch / "tree", out}).status);
        EXPECT_EQ(std::string(reinterpret_cast<const char *>(capability), sizeof capability),
                  kit::attribute(out + "/sub/file", "security.capability"));
        EXPECT_EQ("t", kit::attribute(out + "/sub/file", "trusted.note"));
        EXPECT_EQ("d", kit::attribute(out + "/sub", "trusted.note"));
    }
}

TEST_F(SafeCopy, FilesThatSayTheyAreEmptyAreRefused) {
    const ToolResult result = runTool({"copy", "-f", "/proc/self/status", to});
    EXPECT_EQ(2, result.status);
    EXPECT_TRUE(mentions(result.err, "says that it is empty, and is not")) << result.err;
    EXPECT_EQ("old", kit::readFile(to));
}

// A user may call his files as he likes.
TEST_F(SafeCopy, OwnFilesThatAreCalledAsLeftOversAreFilesLikeEveryOther) {
    const std::string name = ".vexofileop-4194303-1";
    directory("tree");
    directory("tree/" + name + ".d");
    directory("out");
    kit::writeFile(scratch / "tree/" + name, "mine");
    kit::writeFile(scratch / "tree/" + name + ".d/file", "mine");
    kit::writeFile(scratch / "out/" + name, "mine");
    EXPECT_EQ(0, runTool({"copy", "-r", scratch / "tree", scratch / "out"}).status);
    EXPECT_EQ("mine", kit::readFile(scratch / "out/" + name));
    EXPECT_EQ("mine", kit::readFile(scratch / "out/tree/" + name));
    EXPECT_EQ("mine", kit::readFile(scratch / "out/tree/" + name + ".d/file"));
    EXPECT_EQ(0, runTool({"compare", scratch / "tree", scratch / "out/tree"}).status);
    kit::writeFile(scratch / "out/tree/" + name, "else");
    EXPECT_EQ(1, runTool({"compare", scratch / "tree", scratch / "out/tree"}).status);
    EXPECT_EQ(0, runTool({"copy", scratch / "tree/" + name, scratch / "copy"}).status);
    EXPECT_EQ("mine", kit::readFile(scratch / "copy"));
    EXPECT_EQ(0, runTool({"copy", scratch / "out/" + name, scratch / "out/copy"}).status);
    EXPECT_EQ("mine", kit::readFile(scratch / "out/copy"));
    EXPECT_EQ(0, runTool({"relocate", "-y", scratch / "tree", scratch / "moved"}).status);
    EXPECT_EQ("mine", kit::readFile(scratch / "moved/" + name));
    EXPECT_EQ("mine", kit::readFile(scratch / "moved/" + name + ".d/file"));
    EXPECT_EQ(0, runTool({"move", scratch / "moved/" + name, scratch / "single"}).status);
    EXPECT_EQ("mine", kit::readFile(scratch / "single"));
    EXPECT_EQ(0, runTool({"remove", scratch / "out/" + name}).status);
    EXPECT_FALSE(kit::exists(scratch / "out/" + name));
}

TEST_F(SafeMove, OwnFilesThatAreCalledAsLeftOversGoToAnotherVolume) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    directory("tree");
    kit::writeFile(scratch / "tree/.vexofileop-4194303-1", "mine");
    const ToolResult result = runTool({"move", scratch / "tree", volume / "tree"});
    EXPECT_EQ(0, result.status) << result.out << result.err;
    EXPECT_EQ("mine", kit::readFile(volume / "tree/.vexofileop-4194303-1"));
    EXPECT_FALSE(kit::exists(scratch / "tree"));
}

TEST_F(SafeCopy, OtherNamesOfAReplacedFileAreNamed) {
    const std::string other = scratch / "other";
    ASSERT_EQ(0, ::link(to.c_str(), other.c_str()));
    const ToolResult planned = runTool({"plan", "copy", "-f", from, to});
    EXPECT_TRUE(mentions(planned.out, "another name of the old file")) << planned.out;
    const ToolResult result = runTool({"copy", "-f", from, to});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.err, "another name of the file that was replaced keeps its content: " + other))
        << result.err;
    EXPECT_EQ("new", kit::readFile(to));
    EXPECT_EQ("old", kit::readFile(other));
}

TEST_F(SafeCopy, InPlaceNamesStayTogether) {
    const std::string other = scratch / "other";
    ASSERT_EQ(0, ::link(to.c_str(), other.c_str()));
    EXPECT_EQ(2, runTool({"copy", "--in-place", from, to}).status);
    for (const Arguments &command : {Arguments{"copy"}, {"move"}, {"plan", "copy"}, {"copy", "--dry-run"}}) {
        Arguments all = command;
        all.insert(all.end(), {"-f", "--in-place", "--verify", from, to});
        const ToolResult refused = runTool(all);
        EXPECT_EQ(2, refused.status);
        EXPECT_TRUE(mentions(refused.err, "--verify keeps what is replaced until the copy is proven")) << refused.err;
    }
    EXPECT_TRUE(mentions(runTool({"plan", "copy", "-f", "--in-place", from, to}).out, "(in place)"));
    const ToolResult result = runTool({"copy", "-f", "--in-place", from, to});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.err, "1 file written in place")) << result.err;
    EXPECT_EQ("new", kit::readFile(to));
    EXPECT_EQ("new", kit::readFile(other));
    for (const char *place : {"a", "b"}) {
        directory(place);
        kit::writeFile(scratch / place + "/one", place);
        ASSERT_EQ(0, ::link((scratch / place + "/one").c_str(), (scratch / place + "/two").c_str()));
    }
    const ToolResult tree = runTool({"copy", "-rf", "--in-place", scratch / "a/.", scratch / "b"});
    EXPECT_EQ(0, tree.status) << tree.err;
    EXPECT_EQ("a", kit::readFile(scratch / "b/one"));
    EXPECT_EQ(kit::statOf(scratch / "b/one").st_ino, kit::statOf(scratch / "b/two").st_ino);
}

TEST_F(SafeCopy, InPlaceThatFailsSaysWhatItHasCost) {
    const ToolResult result = runTool({"copy", "-f", "--in-place", "/proc/self/status", to});
    EXPECT_EQ(2, result.status);
    EXPECT_TRUE(mentions(result.err, "the old content is gone")) << result.err;
    ASSERT_EQ(0, ::chmod(to.c_str(), 0644));
    kit::writeFile(to, "old");
    const ToolResult missing = runTool({"copy", "-f", "--in-place", scratch / "none", to});
    EXPECT_FALSE(mentions(missing.err, "the old content is gone")) << missing.err;
    EXPECT_EQ("old", kit::readFile(to));
}

// A mount point cannot be removed, and whoever asks for a tree may not know what is mounted in it.
TEST_F(SafeMove, VolumeMountedBelowKeepsItsContent) {
    NEEDS_ROOT();
    directory("tree");
    directory("tree/sub");
    directory("tree/sub/mount");
    kit::writeFile(scratch / "tree/file", "f");
    KIT_REQUIRE(mounted, kit::Volume::tmpfs(1 << 20, scratch / "tree/sub/mount"));
    kit::writeFile(mounted / "inside", "i");
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    const ToolResult planned = runTool({"plan", "move", scratch / "tree", volume / "tree"});
    EXPECT_EQ(1, planned.status) << planned.out << planned.err;
    EXPECT_TRUE(mentions(planned.out + planned.err, "mounted volume below")) << planned.out << planned.err;
    const ToolResult result = runTool({"move", scratch / "tree", volume / "tree"});
    EXPECT_EQ(1, result.status) << result.out << result.err;
    EXPECT_TRUE(mentions(result.err, "tree/sub/mount: mounted volume below")) << result.err;
    EXPECT_EQ("i", kit::readFile(mounted / "inside"));
    EXPECT_FALSE(kit::exists(volume / "tree/sub/mount"));
    EXPECT_EQ("f", kit::readFile(volume / "tree/file"));
    EXPECT_FALSE(kit::exists(scratch / "tree/file"));
    const ToolResult bounded = runTool({"move", "-x", scratch / "tree", volume / "bounded"});
    EXPECT_FALSE(mentions(bounded.err, "mounted volume below")) << bounded.err;
    EXPECT_EQ("i", kit::readFile(mounted / "inside"));
}

TEST_F(SafeCopy, DirectoryThatIsCalledAlmostLikeTheStoresIsTold) {
    directory("tree");
    directory("tree/sub");
    directory("tree/sub/@EADIR");
    kit::writeFile(scratch / "tree/file", "f");
    kit::writeFile(scratch / "tree/sub/@EADIR/mine", "m");
    for (const char *how : {"-r", "-rv"}) {
        const ToolResult result = runTool({"copy", how, scratch / "tree", scratch / how});
        EXPECT_EQ(1, result.status);
        EXPECT_TRUE(mentions(result.err, "tree/sub/@EADIR: the name")) << result.err;
    }
}

TEST_F(SafeMove, HintNamesAllThatKeepsSources) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    directory("tree");
    kit::writeFile(scratch / "tree/file", "f");
    kit::setAttribute(scratch / "tree/file", "user.note", "n");
    ASSERT_EQ(0, ::mkfifo((scratch / "tree/pipe").c_str(), 0600));
    const ToolResult result = runTool({"move", "-r", scratch / "tree", volume.path()});
    EXPECT_EQ(1, result.status);
    const size_t hint = result.err.find("sources stay for that; --accept ");
    ASSERT_NE(std::string::npos, hint) << result.err;
    const std::string rest = result.err.substr(hint + 32);
    const std::string classes = rest.substr(0, rest.find(' '));
    EXPECT_TRUE(mentions(classes, "attribute,") && classes.ends_with("special-file")) << classes;
    EXPECT_TRUE(mentions(rest, " moves all but what was not made there; --specials makes pipes, devices and sockets\n"))
        << rest;
    // So it is: nothing is left to fail for. A creation time may or may not have been the same before.
    const std::string accepted = classes + ",creation-time,dos-attributes";
    EXPECT_EQ(0, ::unlink((volume / "tree/file").c_str()));
    const ToolResult again = runTool({"move", "-r", "--accept", accepted, scratch / "tree", volume.path()});
    EXPECT_EQ(0, again.status) << again.err;
    EXPECT_EQ((std::vector<std::string>{"pipe"}), kit::namesIn(scratch / "tree"));
    EXPECT_EQ(0, runTool({"move", "-r", "--specials", "--accept", accepted, scratch / "tree", volume.path()}).status);
    EXPECT_FALSE(kit::exists(scratch / "tree"));
}

TEST_F(SafeMove, WhatTheOtherVolumeDoesNotTakeKeepsTheSource) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    kit::setAttribute(from, "user.note", "n");
    const ToolResult result = runTool({"move", from, volume.path()});
    EXPECT_EQ(1, result.status);
    const std::string told = "1 attribute not kept: " + from + " -> " + (volume / "from") +
                             ": attribute user.note: only at the first, 1 bytes: Operation not supported (attribute)\n";
    EXPECT_TRUE(mentions(result.err, told + "vexofileop: the source stays for that; --accept attribute moves it\n"))
        << result.err;
    EXPECT_EQ("new", kit::readFile(from));
    EXPECT_EQ("new", kit::readFile(volume / "from"));
    const ToolResult copied = runTool({"copy", "-f", from, volume.path()});
    EXPECT_EQ(1, copied.status);
    EXPECT_TRUE(mentions(copied.err, told)) << copied.err;
    const ToolResult accepted = runTool({"move", "-f", "--accept", "attribute,fat", from, volume.path()});
    EXPECT_EQ(0, accepted.status) << accepted.err;
    EXPECT_TRUE(mentions(accepted.err, "1 attribute not kept, as accepted: ")) << accepted.err;
    EXPECT_FALSE(kit::exists(from));
}

TEST_F(SafeMove, StreamsThatDoNotFitKeepTheSource) {
    NEEDS_ROOT();
    KIT_REQUIRE(volume, kit::Volume::tmpfs(256 << 10));
    ::mkdir((scratch / "@eaDir").c_str(), 0777);
    kit::writeFile(scratch / "value", kit::pattern(40'000));
    kit::writeFile(scratch / "more", kit::pattern(400'000));
    ASSERT_EQ(0, runTool({"ea", "set", from, "first", "--from", scratch / "value"}).status);
    ASSERT_EQ(0, runTool({"ea", "set", from, "second", "--from", scratch / "more"}).status);
    const std::string store = kit::readFile(storeOf("from"));
    for (const int code : {-1, 0}) { // "@eaDir", and a "._" file
        if (code >= 0) {
            ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=" + std::to_string(code)).c_str(), 1);
        }
        const ToolResult result = runTool({"move", "-f", from, volume / "file"});
        ::unsetenv("VEXOFILEOP_FSTYPES");
        EXPECT_EQ(1, result.status) << result.err;
        EXPECT_TRUE(mentions(result.err, " (stream)\n")) << result.err;
        EXPECT_TRUE(mentions(result.err, "the source stays")) << result.err;
        EXPECT_EQ("new", kit::readFile(from));
        EXPECT_EQ(store, kit::readFile(storeOf("from")));
    }
}

TEST_F(SafeMove, DirectoryThatCannotBeFinishedKeepsItsSource) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    directory("tree");
    kit::setAttribute(scratch / "tree", "user.note", "n");
    kit::writeFile(scratch / "tree/file", "f");
    const ToolResult result = runTool({"move", scratch / "tree", volume.path()});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("n", kit::attribute(scratch / "tree", "user.note"));
    EXPECT_EQ("f", kit::readFile(volume / "tree/file"));
}

TEST_F(SafeMove, WhatIsNobodysStoreStaysWithItsDirectory) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    directory("tree");
    directory("tree/@eaDir");
    kit::writeFile(scratch / "tree/file", "f");
    kit::writeFile(scratch / "tree/@eaDir/renamed away@VexoEAStream", "s");
    kit::writeFile(scratch / "tree/@eaDir/unknown", "u");
    const ToolResult result = runTool({"move", scratch / "tree", volume.path()});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("s", kit::readFile(scratch / "tree/@eaDir/renamed away@VexoEAStream"));
    EXPECT_EQ("u", kit::readFile(scratch / "tree/@eaDir/unknown"));
    EXPECT_EQ("f", kit::readFile(volume / "tree/file"));
}

TEST_F(SafeMove, SecondTreeOfOneNameIsRefused) {
    directory("a");
    directory("b");
    directory("out");
    for (const char *tree : {"a/docs", "b/docs"}) {
        directory(tree);
        kit::writeFile(scratch / tree + "/file", tree);
    }
    const ToolResult result = runTool({"move", "-f", scratch / "a/docs", scratch / "b/docs", scratch / "out"});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "just written by this command")) << result.err;
    EXPECT_EQ("a/docs", kit::readFile(scratch / "out/docs/file"));
    EXPECT_EQ("b/docs", kit::readFile(scratch / "b/docs/file"));
}

TEST_F(SafeMove, TwoAtOnceIntoOneNameLoseNothing) {
    for (const char *policy : {"--keep-both", "-v"}) {
        directory(policy);
        const std::string at = scratch / policy;
        for (int round = 0; round < 30; ++round) {
            const std::string name = at + "/n" + std::to_string(round);
            kit::writeFile(at + "/a", "a");
            kit::writeFile(at + "/b", "b");
            std::thread other([&] { runTool({"move", policy, at + "/a", name}); });
            runTool({"move", policy, at + "/b", name});
            other.join();
            std::string contents;
            for (const std::string &file : kit::namesIn(at)) {
                contents += kit::readFile(at + "/" + file);
                ASSERT_EQ(0, ::unlink((at + "/" + file).c_str()));
            }
            std::ranges::sort(contents);
            EXPECT_EQ("ab", contents) << policy;
        }
    }
}

} // namespace
