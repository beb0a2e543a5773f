// vexofileop ea in a tree whose owner is somebody else: links that are named are not followed, and nothing is open to
// others that was not before.
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::runTool;
using kit::ToolResult;

class EaHeld : public testing::Test {
  protected:
    void SetUp() override {
        KIT_NEEDS_TO_MAKE_STORES();
        kit::writeFile(one, "data", 0600);
        kit::writeFile(other, "others", 0600);
    }
    void TearDown() override { ::unsetenv("VEXOFILEOP_FSTYPES"); }
    void setKind(int code) const {
        ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=" + std::to_string(code)).c_str(), 1);
    }
    ToolResult ea(const kit::Arguments &arguments) const {
        kit::Arguments all = {"ea"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return runTool(all);
    }
    static mode_t modeOf(const std::string &path) { return kit::statOf(path).st_mode & 07777; }
    static void setMode(const std::string &path, mode_t mode) { ASSERT_EQ(0, ::chmod(path.c_str(), mode)); }

    kit::ScratchDirectory scratch;
    std::string one = scratch / "one", other = scratch / "other";
};

// Where a volume has no other lock than the right to write, the library opens a file that is not locked to everybody.
TEST_F(EaHeld, CopyOpensNoFileToAnybody) {
    for (const int kind : {0, 5, 7, 18, 1, 2}) {
        setKind(kind);
        setMode(one, 0600);
        setMode(other, 0640);
        ASSERT_EQ(0, ea({"set", one, "user.note", "hello"}).status) << kind;
        ToolResult result = ea({"copy", one, other});
        EXPECT_EQ(0, result.status) << kind << result.err;
        EXPECT_EQ(0640U, modeOf(other)) << kind;
        EXPECT_EQ("hello", ea({"get", other, "user.note"}).out) << kind;
        setMode(other, 0440);
        result = ea({"copy", "--move", one, other});
        EXPECT_EQ(0, result.status) << kind << result.err;
        EXPECT_EQ(0440U, modeOf(other)) << kind << ": one that is locked stays so";
        EXPECT_EQ(kind == 7 ? "hello" : "", ea({"get", one, "user.note"}).out) << kind;
        EXPECT_EQ("hello", ea({"get", other, "user.note"}).out) << kind;
        (void)ea({"rm", other, "user.note"});
    }
}

TEST_F(EaHeld, CopyLocksWhereTheRightToWriteIsTheLock) {
    for (const int kind : {0, 7}) {
        setKind(kind);
        setMode(one, 0400);
        setMode(other, 0640);
        EXPECT_EQ(0, ea({"copy", one, other}).status) << kind;
        EXPECT_EQ(0440U, modeOf(other)) << kind;
    }
}

TEST_F(EaHeld, CopyMakesNoStoreThatIsOpenToMoreThanTheSources) {
    for (const int kind : {0, 2}) {
        setKind(kind);
        const std::string from = scratch / (kind == 0 ? "._one" : "@eaDir/one@VexoEAStream");
        const std::string to = scratch / (kind == 0 ? "._other" : "@eaDir/other@VexoEAStream");
        ASSERT_EQ(0, ea({"set", one, "note", "secret"}).status);
        setMode(from, 0600);
        EXPECT_EQ(0, ea({"copy", one, other}).status);
        EXPECT_EQ(0600U, modeOf(to)) << kind;
        setMode(to, 0640);
        setMode(from, 0666);
        EXPECT_EQ(0, ea({"copy", one, other}).status);
        EXPECT_EQ(0640U, modeOf(to)) << kind;
        ASSERT_EQ(0, ea({"remove", one, other}).status);
    }
}

// What other services keep for a file keeps its mode as well.
TEST_F(EaHeld, CopyLeavesTheModesInTheFilesOwnDirectory) {
    setKind(2);
    for (const std::string name : {"@eaDir", "@eaDir/one", "@eaDir/other"}) {
        ASSERT_EQ(0, ::mkdir((scratch / name).c_str(), 0777));
    }
    kit::writeFile(scratch / "@eaDir/one/both", "new", 0644);
    kit::writeFile(scratch / "@eaDir/other/both", "old", 0600);
    kit::writeFile(scratch / "@eaDir/one/only", "brought", 0640);
    kit::writeFile(scratch / "@eaDir/other/own", "own", 0600);
    for (const bool move : {false, true}) {
        const ToolResult result = move ? ea({"copy", "--move", one, other}) : ea({"copy", one, other});
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_EQ("new", kit::readFile(scratch / "@eaDir/other/both"));
        EXPECT_EQ("brought", kit::readFile(scratch / "@eaDir/other/only"));
        EXPECT_EQ("own", kit::readFile(scratch / "@eaDir/other/own"));
        EXPECT_EQ(0600U, modeOf(scratch / "@eaDir/other/both"));
        EXPECT_EQ(0640U, modeOf(scratch / "@eaDir/other/only"));
        EXPECT_EQ(3U, kit::namesIn(scratch / "@eaDir/other").size()) << "no private names";
        EXPECT_EQ(!move, kit::exists(scratch / "@eaDir/one"));
    }
}

TEST_F(EaHeld, LinkThatIsNamedIsNotFollowed) {
    const std::string link = scratch / "link";
    ASSERT_EQ(0, ::symlink("other", link.c_str()));
    for (const int kind : {0, 2, 7}) {
        setKind(kind);
        ASSERT_EQ(0, ea({"set", one, "user.note", "1"}).status);
        ASSERT_EQ(0, ea({"set", other, "user.note", "2"}).status);
        const auto before = kit::Fingerprint::of(scratch.path());
        for (const kit::Arguments &words : std::initializer_list<kit::Arguments>{{"list", link},
                                                                                 {"get", link, "user.note"},
                                                                                 {"set", link, "user.note", "3"},
                                                                                 {"rm", link, "user.note"},
                                                                                 {"show", link},
                                                                                 {"diff", one, link},
                                                                                 {"copy", one, link},
                                                                                 {"copy", link, one},
                                                                                 {"copy", "--move", link, one},
                                                                                 {"rename", one, link},
                                                                                 {"remove", link},
                                                                                 {"repair", link},
                                                                                 {"upgrade", link},
                                                                                 {"upgrade", "-r", link}}) {
            const ToolResult result = ea(words);
            EXPECT_EQ(2, result.status) << kind << " " << words[0];
            EXPECT_NE(std::string::npos, result.err.find(link)) << result.err;
            EXPECT_NE(std::string::npos, result.err.find("it is a symbolic link, which is not followed")) << result.err;
        }
        EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(scratch.path()), {"accessed"})) << kind;
        (void)ea({"rm", one, "user.note"});
        (void)ea({"rm", other, "user.note"});
    }
    EXPECT_NE(std::string::npos, ea({"--help"}).out.find("symbolic link that is named as a file is not followed"));
}

// A link on the way is where the user has pointed to; one that stands in place of a store is not.
TEST_F(EaHeld, ShowEntersNoStoreByALink) {
    setKind(2);
    const std::string secret = scratch / "secret";
    ASSERT_EQ(0, ::mkdir((scratch / "@eaDir").c_str(), 0777));
    kit::writeFile(secret, stream::bytes({{"of-another", "1"}}));
    ASSERT_EQ(0, ::symlink(secret.c_str(), (scratch / "@eaDir/one@VexoEAStream").c_str()));
    ToolResult result = ea({"show", one});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ(std::string::npos, result.out.find("of-another"));
    EXPECT_NE(std::string::npos, result.err.find(scratch / "@eaDir/one@VexoEAStream")) << result.err;
    ASSERT_EQ(0, ::unlink((scratch / "@eaDir/one@VexoEAStream").c_str()));
    ASSERT_EQ(0, ::symlink(".", (scratch / "here").c_str()));
    ASSERT_EQ(0, ea({"set", scratch / "here/one", "note", "1"}).status);
    EXPECT_EQ("1", ea({"get", one, "note"}).out);
    result = ea({"show", scratch / "here/one"});
    EXPECT_NE(std::string::npos, result.out.find(scratch / "here/@eaDir/one@VexoEAStream")) << result.out;
}

TEST_F(EaHeld, RenameReachesAnotherVolume) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=2:" + volume.path() + "=2").c_str(), 1);
    const std::string to = volume / "moved";
    ASSERT_EQ(0, ea({"set", one, "note", "1"}).status);
    kit::writeFile(to, "data");
    ASSERT_EQ(0, ::unlink(one.c_str()));
    const ToolResult result = ea({"rename", one, to});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("1", ea({"get", to, "note"}).out);
    EXPECT_FALSE(kit::exists(scratch / "@eaDir/one@VexoEAStream"));
}

} // namespace
