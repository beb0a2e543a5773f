// What other services keep for a file or directory in a directory of its own in "@eaDir", on its way with copy, move
// and relocate; and what plan and compare say of it.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using kit::Arguments;
using kit::runTool;
using kit::ToolResult;

bool mentions(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

void setTimes(const std::string &path) {
    const timespec times[] = {{1'100'000'000, 0}, {1'200'000'000, 123'456'700}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW)) << path;
}

// A thing of another service: private, and somebody's.
void makeThing(const std::string &path, const std::string &content) {
    kit::writeFile(path, content, 0600);
    ASSERT_EQ(0, ::chown(path.c_str(), 7, 8));
    kit::setAttribute(path, "user.note", "n");
    acl_t acl = ::acl_from_text("u::rw-,u:1234:r--,g::---,m::r--,o::---");
    ASSERT_EQ(0, ::acl_set_file(path.c_str(), ACL_TYPE_ACCESS, acl));
    ::acl_free(acl);
    setTimes(path);
}

// Everything that a thing has, in words.
std::string described(const std::string &path) {
    const struct stat found = kit::statOf(path);
    std::string text = std::to_string(found.st_mode) + " " + std::to_string(found.st_uid) + ":" +
                       std::to_string(found.st_gid) + " " + std::to_string(found.st_mtim.tv_sec) + "." +
                       std::to_string(found.st_mtim.tv_nsec) + " note=" + kit::attribute(path, "user.note") +
                       " acl=" + kit::attribute(path, "system.posix_acl_access");
    return text + (S_ISREG(found.st_mode) ? " " + kit::readFile(path) : "");
}

class Kept : public ::testing::Test {
  protected:
    void SetUp() override {
        KIT_NEEDS_ROOT("to mount volumes, and to give owners away");
        make(tree);
    }
    // A file and a directory, each with things of its own.
    static void make(const std::string &top) {
        for (const char *directory :
             {"", "/@eaDir", "/@eaDir/file", "/@eaDir/file/deep", "/inner", "/@eaDir/inner", "/inner/below"}) {
            ASSERT_EQ(0, ::mkdir((top + directory).c_str(), 0755));
        }
        kit::writeFile(top + "/file", "content");
        kit::writeFile(top + "/inner/below/other", "o");
        makeThing(top + "/@eaDir/file/thumb", "thumb");
        makeThing(top + "/@eaDir/file/deep/thumb", "deep thumb");
        makeThing(top + "/@eaDir/inner/index", "index");
        ASSERT_EQ(0, ::symlink("nowhere", (top + "/@eaDir/file/link").c_str()));
        for (const char *directory : {"/@eaDir/file/deep", "/@eaDir/file", "/@eaDir/inner"}) {
            ASSERT_EQ(0, ::chmod((top + directory).c_str(), 0751));
            ASSERT_EQ(0, ::chown((top + directory).c_str(), 9, 10));
            setTimes(top + directory);
        }
    }
    static constexpr const char *kThings[] = {"file",  "file/thumb", "file/deep", "file/deep/thumb",
                                              "inner", "inner/index"};
    static void expectArrived(const std::string &from, const std::string &to) {
        for (const char *thing : kThings) {
            EXPECT_EQ(described(from + "/@eaDir/" + thing), described(to + "/@eaDir/" + thing)) << thing;
        }
        char target[16] = "";
        EXPECT_EQ(7, ::readlink((to + "/@eaDir/file/link").c_str(), target, sizeof target));
    }
    static void expectNothingTold(const ToolResult &result) {
        EXPECT_EQ(0, result.status) << result.out << result.err;
        EXPECT_EQ("", result.err);
    }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree";
};

TEST_F(Kept, ArrivesAsItWas) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(4 << 20));
    for (const char *how : {"-r", "-rv"}) {
        for (const std::string &to : {scratch / how, volume / how}) {
            const ToolResult planned = runTool({"plan", "copy", "-r", tree, to});
            EXPECT_EQ(0, planned.status) << planned.out;
            EXPECT_FALSE(mentions(planned.out, "not-carried")) << planned.out;
            expectNothingTold(runTool({"copy", how, tree, to}));
            expectArrived(tree, to);
            const ToolResult compared = runTool({"compare", tree, to});
            EXPECT_EQ(0, compared.status) << compared.out;
        }
    }
    make(scratch / "again");
    for (const char *command : {"move", "relocate"}) {
        const std::string to = volume / command;
        expectNothingTold(std::string(command) == "move" ? runTool({"move", tree, to})
                                                         : runTool({"relocate", "-y", scratch / "again", to}));
        expectArrived(scratch / "-r", to);
    }
    EXPECT_FALSE(kit::exists(tree));
    EXPECT_FALSE(kit::exists(scratch / "again"));
}

TEST_F(Kept, GoesWithASingleFile) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(4 << 20));
    const std::string before = described(tree + "/@eaDir/file/thumb");
    expectNothingTold(runTool({"copy", tree + "/file", scratch / "copy"}));
    EXPECT_EQ(before, described(scratch / "@eaDir/copy/thumb"));
    expectNothingTold(runTool({"move", tree + "/file", volume / "moved"}));
    EXPECT_EQ(before, described(volume / "@eaDir/moved/thumb"));
    EXPECT_FALSE(kit::exists(tree + "/@eaDir/file"));
}

// The modes of files are the volume's own there.
TEST_F(Kept, GoesToAVolumeThatKeepsMetadataBesideAFile) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(4 << 20));
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=5").c_str(), 1);
    for (const char *how : {"-r", "-rv"}) {
        EXPECT_EQ(0, runTool({"plan", "copy", "-r", tree, volume / how}).status);
        const ToolResult copied = runTool({"copy", how, "--accept", "mode", tree, volume / how});
        EXPECT_EQ(0, copied.status) << copied.err;
        expectArrived(tree, volume / how);
        const ToolResult compared = runTool({"compare", tree, volume / how});
        EXPECT_FALSE(mentions(compared.out, "kept in")) << compared.out;
    }
    const ToolResult moved = runTool({"move", "--accept", "mode", tree, volume / "moved"});
    EXPECT_EQ(0, moved.status) << moved.err;
    expectArrived(volume / "-r", volume / "moved");
    ::unsetenv("VEXOFILEOP_FSTYPES");
}

TEST_F(Kept, IsToldWhereItCannotGo) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    ASSERT_EQ(0, ::mkfifo((tree + "/@eaDir/file/pipe").c_str(), 0600));
    const ToolResult planned = runTool({"plan", "copy", "-r", "-v", tree, volume / "a"});
    EXPECT_EQ(1, planned.status);
    for (const char *how : {"-r", "-rv"}) {
        const ToolResult copied = runTool({"copy", how, tree, volume / how});
        EXPECT_EQ(1, copied.status);
        const ToolResult compared = runTool({"compare", tree, volume / how});
        EXPECT_EQ(1, compared.status);
        for (const char *cls : {"(attribute)", "(acl-access)", "(not-carried)"}) {
            EXPECT_TRUE(mentions(planned.out, cls)) << cls << planned.out;
            EXPECT_TRUE(mentions(copied.err, cls)) << cls << copied.err;
            EXPECT_TRUE(mentions(compared.out, cls)) << cls << compared.out;
        }
        EXPECT_TRUE(mentions(compared.out, "only at the first: pipe (no regular file) (not-carried)")) << compared.out;
    }
    const ToolResult moved = runTool({"move", tree, volume / "moved"});
    EXPECT_EQ(1, moved.status);
    EXPECT_EQ("thumb", kit::readFile(tree + "/@eaDir/file/thumb"));
}

TEST_F(Kept, DifferencesAreSeen) {
    const std::string copy = scratch / "copy", thumb = copy + "/@eaDir/file/thumb";
    const auto differs = [&](const char *cls) {
        const ToolResult result = runTool({"compare", tree, copy});
        EXPECT_EQ(1, result.status) << cls;
        EXPECT_TRUE(mentions(result.out, std::string("(") + cls + ")\n")) << result.out;
        EXPECT_TRUE(mentions(result.out, "kept in \"@eaDir\"")) << result.out;
        ASSERT_EQ(0, runTool({"remove", "-r", copy}).status);
        ASSERT_EQ(0, runTool({"copy", "-r", tree, copy}).status);
    };
    ASSERT_EQ(0, runTool({"copy", "-r", tree, copy}).status);
    ASSERT_EQ(0, ::chown(thumb.c_str(), 1, 8));
    differs("owner");
    ASSERT_EQ(0, ::chmod(thumb.c_str(), 0660));
    differs("acl-access");
    ASSERT_EQ(0, ::chmod((copy + "/@eaDir/inner").c_str(), 0777));
    differs("mode");
    ASSERT_EQ(0, ::removexattr(thumb.c_str(), "user.note"));
    differs("attribute");
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, thumb.c_str(), nullptr, 0));
    differs("modification-time");
    kit::writeFile(thumb, "THUMB", 0600);
    setTimes(thumb);
    differs("not-carried");
    ASSERT_EQ(0, ::unlink(thumb.c_str()));
    differs("not-carried");
}

// What only the directory at the destination has stays, also when the source brings things of its own.
TEST_F(Kept, OfADirectoryThatIsMergedIntoStays) {
    const std::string copy = scratch / "copy";
    ASSERT_EQ(0, runTool({"copy", "-r", tree, copy}).status);
    makeThing(copy + "/@eaDir/inner/only there", "mine");
    kit::writeFile(copy + "/@eaDir/inner/index", "old");
    const std::string before = described(copy + "/@eaDir/inner/only there");
    const ToolResult merged = runTool({"copy", "-rf", tree + "/inner", copy + "/inner", "-T"});
    EXPECT_EQ(0, merged.status) << merged.err;
    EXPECT_EQ(before, described(copy + "/@eaDir/inner/only there"));
    EXPECT_EQ(described(tree + "/@eaDir/inner/index"), described(copy + "/@eaDir/inner/index"));
    EXPECT_EQ((std::vector<std::string>{"file", "inner"}), kit::namesIn(copy + "/@eaDir"));
}

} // namespace
