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

using kit::mentions;

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
std::string describedKept(const std::string &path) {
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
            EXPECT_EQ(describedKept(from + "/@eaDir/" + thing), describedKept(to + "/@eaDir/" + thing)) << thing;
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
    const std::string before = describedKept(tree + "/@eaDir/file/thumb");
    expectNothingTold(runTool({"copy", tree + "/file", scratch / "copy"}));
    EXPECT_EQ(before, describedKept(scratch / "@eaDir/copy/thumb"));
    expectNothingTold(runTool({"move", tree + "/file", volume / "moved"}));
    EXPECT_EQ(before, describedKept(volume / "@eaDir/moved/thumb"));
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
    const std::string before = describedKept(copy + "/@eaDir/inner/only there");
    const ToolResult merged = runTool({"copy", "-rf", tree + "/inner", copy + "/inner", "-T"});
    EXPECT_EQ(0, merged.status) << merged.err;
    EXPECT_EQ(before, describedKept(copy + "/@eaDir/inner/only there"));
    EXPECT_EQ(describedKept(tree + "/@eaDir/inner/index"), describedKept(copy + "/@eaDir/inner/index"));
    EXPECT_EQ((std::vector<std::string>{"file", "inner"}), kit::namesIn(copy + "/@eaDir"));
}

// ---- an "@eaDir" that holds nothing, and may be anybody's

class EmptyStore : public Kept {
  protected:
    void SetUp() override {
        Kept::SetUp();
        if (IsSkipped()) {
            return;
        }
        for (const char *directory : {"/inner/@eaDir", "/left", "/left/@eaDir"}) {
            ASSERT_EQ(0, ::mkdir((tree + directory).c_str(), 0755));
        }
        kit::writeFile(tree + "/left/@eaDir/.cover", "c"); // which alone is nothing
        for (const char *directory : {"/inner/@eaDir", "/left/@eaDir"}) {
            kit::setAttribute(tree + directory, "user.note", "n");
            ASSERT_EQ(0, ::chown((tree + directory).c_str(), 7, 8));
            ASSERT_EQ(0, ::chmod((tree + directory).c_str(), 0750));
            setTimes(tree + directory);
        }
        setTimes(tree + "/inner");
        setTimes(tree + "/left");
    }
    static void expectStores(const std::string &from, const std::string &to) {
        for (const char *path : {"/inner/@eaDir", "/left/@eaDir", "/inner", "/left"}) {
            EXPECT_EQ(describedKept(from + path), describedKept(to + path)) << path;
        }
    }
};

TEST_F(EmptyStore, ArrivesAsItWas) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(4 << 20));
    for (const char *how : {"-r", "-rv"}) {
        for (const std::string &to : {scratch / how, volume / how}) {
            EXPECT_EQ(0, runTool({"plan", "copy", "-r", tree, to}).status);
            expectNothingTold(runTool({"copy", how, tree, to}));
            expectStores(tree, to);
            const ToolResult compared = runTool({"compare", tree, to});
            EXPECT_EQ(0, compared.status) << compared.out;
        }
    }
    expectNothingTold(runTool({"move", tree, volume / "moved"}));
    expectStores(scratch / "-r", volume / "moved");
    EXPECT_FALSE(kit::exists(tree));
    expectNothingTold(runTool({"relocate", "-y", volume / "moved", scratch / "relocated"}));
    expectStores(scratch / "-r", scratch / "relocated");
    EXPECT_FALSE(kit::exists(volume / "moved"));
}

TEST_F(EmptyStore, IsMissedByAComparison) {
    const std::string copy = scratch / "copy";
    ASSERT_EQ(0, runTool({"copy", "-r", tree, copy}).status);
    ASSERT_EQ(0, ::rmdir((copy + "/inner/@eaDir").c_str()));
    setTimes(copy + "/inner");
    const ToolResult compared = runTool({"compare", tree, copy});
    EXPECT_EQ(1, compared.status);
    EXPECT_TRUE(mentions(compared.out, "kept in \"@eaDir\", only at the first: @eaDir (a directory) (not-carried)\n"))
        << compared.out;
    ASSERT_EQ(0, ::mkdir((copy + "/inner/@eaDir").c_str(), 0777));
    setTimes(copy + "/inner");
    EXPECT_TRUE(mentions(runTool({"compare", tree, copy}).out, "(owner)\n"));
}

// The store of what lies there stays as it is.
TEST_F(EmptyStore, ChangesNothingOfAStoreThatHoldsSomething) {
    const std::string copy = scratch / "copy", store = copy + "/inner/@eaDir";
    for (const std::string &directory : {copy, copy + "/inner", store, store + "/theirs"}) {
        ASSERT_EQ(0, ::mkdir(directory.c_str(), 0755));
    }
    kit::writeFile(copy + "/inner/theirs", "t");
    kit::writeFile(store + "/theirs/thumb", "thumb");
    const mode_t mode = kit::statOf(store).st_mode;
    EXPECT_EQ(0, runTool({"plan", "copy", "-rT", tree, copy}).status);
    expectNothingTold(runTool({"copy", "-rT", tree, copy}));
    EXPECT_EQ(mode, kit::statOf(store).st_mode);
    EXPECT_EQ("thumb", kit::readFile(store + "/theirs/thumb"));
    const ToolResult compared = runTool({"compare", tree, copy});
    EXPECT_EQ(copy + "/inner/theirs: only at the second (extra)\n", compared.out);
}

// It is told where it cannot stand.
TEST_F(EmptyStore, IsToldWhereSomethingElseHasItsName) {
    const std::string copy = scratch / "copy";
    for (const std::string &directory : {copy, copy + "/inner"}) {
        ASSERT_EQ(0, ::mkdir(directory.c_str(), 0755));
    }
    kit::writeFile(copy + "/inner/@eaDir", "theirs");
    EXPECT_EQ(1, runTool({"plan", "copy", "-rT", tree, copy}).status);
    const ToolResult copied = runTool({"copy", "-rT", tree, copy});
    EXPECT_EQ(1, copied.status);
    EXPECT_TRUE(mentions(copied.err, "(not-carried)\n")) << copied.err;
    EXPECT_EQ("theirs", kit::readFile(copy + "/inner/@eaDir"));
}

} // namespace
