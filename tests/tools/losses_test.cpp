// vexofileop copy and move onto volumes that do not keep everything: nothing is lost under status 0, each loss has its
// class, and a move keeps what would be lost.
#include "platform/core.h"
#include "tests/ea/adouble_bytes.h"
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using kit::Arguments;
using kit::mentions;
using kit::runTool;
using kit::ToolResult;

timespec creationOf(const std::string &path) {
    VLIBCStat found{};
    EXPECT_EQ(0, VLIBCFileStat(path.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_CREATE_TIME, &found)) << path;
    return found.createTime;
}

int64_t unitsOf(const timespec &time) { // in which a record keeps it
    return time.tv_sec * 10'000'000 + time.tv_nsec / 100;
}

class Losses : public ::testing::Test {
  protected:
    void SetUp() override {
        KIT_NEEDS_ROOT("to mount volumes, and for what only root sets");
        ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
        kit::writeFile(file, "content");
    }
    // A move of the tree to the volume, which keeps the file for a loss of the class; a copy that tells it; and,
    // accepted, a move that goes.
    void expectKept(const kit::Volume &volume, const std::string &cls, const std::string &others = "fat") const {
        const std::string told = " (" + cls + ")\n";
        for (const char *how : {"-r", "-rv"}) {
            const ToolResult copied = runTool({"copy", how, "--accept", others, tree, volume / how});
            EXPECT_EQ(1, copied.status) << copied.err;
            EXPECT_TRUE(mentions(copied.err, told)) << copied.err;
        }
        const ToolResult moved = runTool({"move", "--accept", others, tree, volume.path()});
        EXPECT_EQ(1, moved.status) << moved.err;
        EXPECT_TRUE(mentions(moved.err, told)) << moved.err;
        EXPECT_EQ("content", kit::readFile(file)) << moved.err;
        const ToolResult accepted = runTool({"move", "-f", "--accept", others + "," + cls, tree, volume.path()});
        EXPECT_EQ(0, accepted.status) << accepted.err;
        EXPECT_TRUE(mentions(accepted.err, "as accepted: ")) << accepted.err;
        EXPECT_FALSE(kit::exists(tree)) << accepted.err;
    }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", file = tree + "/file";
};

// The archive attribute alone is what changing an attribute leaves: a record without a creation time.
TEST_F(Losses, CreationTimeSurvivesARecordThatHasNone) {
    ASSERT_EQ(0, runTool({"ea", "set", file, "note", "x"}).status);
    const timespec created = creationOf(file);
    for (const char *how : {"-r", "-rv"}) {
        const std::string to = scratch / how;
        const ToolResult result = runTool({"copy", how, tree, to});
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_EQ(unitsOf(created), unitsOf(creationOf(to + "/file"))) << how;
    }
    const ToolResult single = runTool({"copy", file, scratch / "single"});
    EXPECT_EQ(0, single.status) << single.err;
    EXPECT_EQ(unitsOf(created), unitsOf(creationOf(scratch / "single")));
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    const ToolResult moved = runTool({"move", tree, volume / "there"});
    EXPECT_EQ(0, moved.status) << moved.err;
    EXPECT_EQ(unitsOf(created), unitsOf(creationOf(volume / "there/file")));
    EXPECT_FALSE(kit::exists(tree));
}

TEST_F(Losses, AttributesOfTheSystem) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    constexpr unsigned char capability[20] = {1, 0, 0, 2, 0, 4};
    if (::setxattr(file.c_str(), "security.capability", capability, sizeof capability, 0) != 0) {
        GTEST_SKIP() << "this volume or this root cannot set such attributes";
    }
    expectKept(volume, "system-attribute");
}

TEST_F(Losses, AttributesOfTheSystemGoAlongToAVolumeThatKeepsThem) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    if (::setxattr(file.c_str(), "trusted.note", "t", 1, 0) != 0 ||
        ::setxattr(tree.c_str(), "trusted.note", "d", 1, 0) != 0) {
        GTEST_SKIP() << "this volume or this root cannot set such attributes";
    }
    const ToolResult result = runTool({"move", tree, volume.path()});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("t", kit::attribute(volume / "tree/file", "trusted.note"));
    EXPECT_EQ("d", kit::attribute(volume / "tree", "trusted.note"));
}

TEST_F(Losses, AttributeThatIsTooLargeForTheOtherVolume) {
    KIT_REQUIRE(large, kit::Volume::loop("xfs", 320 << 20));
    KIT_REQUIRE(small, kit::Volume::loop("ext4", 16 << 20));
    ASSERT_EQ(0, ::mkdir((large / "tree").c_str(), 0755));
    kit::writeFile(large / "tree/file", "content");
    kit::setAttribute(large / "tree/file", "user.large", std::string(30'000, 'l'));
    const ToolResult result = runTool({"move", large / "tree", small.path()});
    EXPECT_EQ(1, result.status);
    const std::string told =
        "attribute user.large: only at the first, 30000 bytes: No space left on device (attribute)\n";
    EXPECT_TRUE(mentions(result.err, told)) << result.err;
    EXPECT_TRUE(mentions(runTool({"plan", "move", large / "tree", small / "other"}).out, told));
    EXPECT_EQ("content", kit::readFile(large / "tree/file"));
    const ToolResult copied = runTool({"copy", "-rf", large / "tree", small / "copy"});
    EXPECT_EQ(1, copied.status);
    EXPECT_TRUE(mentions(copied.err, "(attribute)\n")) << copied.err;
}

// A store is a file that others may write to; as attributes of the copy its names would be in force.
TEST_F(Losses, WhatAStoreHoldsGivesItsCopyNoRights) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(4 << 20));
    const std::string capability("\1\0\0\2\x80\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20); // to be anybody
    const std::string acl("\2\0\0\0\1\0\6\0\xff\xff\xff\xff\4\0\6\0\xff\xff\xff\xff\x20\0\6\0\xff\xff\xff\xff", 28);
    const std::vector<std::string> names = {"security.capability", "system.posix_acl_access", "trusted.mark"};
    const stream::Attributes all = {{names[0], capability}, {names[1], acl}, {names[2], "x"}, {"user.b", "b"}};
    ASSERT_EQ(0, ::mkdir((tree + "/@eaDir").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((tree + "/dir").c_str(), 0755));
    for (const char *const name : {"file", "dir"}) {
        kit::writeFile(tree + "/@eaDir/" + name + "@VexoEAStream", stream::bytes(all));
    }
    for (const std::string from : {"1", "2", "5"}) {
        if (from == "5") {
            ASSERT_EQ(0, ::rename((tree + "/@eaDir/file@VexoEAStream").c_str(), (tree + "/._file").c_str()));
            ASSERT_EQ(0, ::rename((tree + "/@eaDir/dir@VexoEAStream").c_str(), (tree + "/._dir").c_str()));
        }
        const std::string types = tree + "=" + from + ":" + volume.path() + "=7", to = volume / from;
        ::setenv("VEXOFILEOP_FSTYPES", types.c_str(), 1); // NOLINT(concurrency-mt-unsafe): one thread
        const ToolResult planned = runTool({"plan", "copy", "-rv", tree, to});
        const ToolResult copied = runTool({"copy", "-rv", tree, to}), compared = runTool({"compare", tree, to});
        for (const std::string &name : names) {
            const size_t size = name == names[0] ? 20 : name == names[1] ? 28 : 1;
            const std::string told =
                "attribute " + name + ": only at the first, " + std::to_string(size) + " bytes (system-attribute)\n";
            for (const std::string &text : {planned.out, copied.out, compared.out}) {
                EXPECT_TRUE(mentions(text, "file: " + told)) << from << text;
                EXPECT_TRUE(mentions(text, "dir: " + told)) << from << text;
            }
            for (const char *const entry : {"/file", "/dir"}) {
                EXPECT_EQ("", kit::attribute(to + entry, name.c_str())) << from << entry << name;
            }
        }
        EXPECT_EQ("b", kit::attribute(to + "/file", "user.b")) << from;
        EXPECT_EQ("b", kit::attribute(to + "/dir", "user.b")) << from;
        EXPECT_EQ(1, planned.status);
        EXPECT_EQ(1, copied.status);
        EXPECT_EQ(1, compared.status);
        kit::writeFile(volume / "one", "");
        EXPECT_NE(0, runTool({"ea", "copy", file, volume / "one"}).status);
        EXPECT_EQ("", kit::attribute(volume / "one", "security.capability")) << from;
        EXPECT_EQ("b", kit::attribute(volume / "one", "user.b")) << from;
    }
    ::unsetenv("VEXOFILEOP_FSTYPES"); // NOLINT(concurrency-mt-unsafe)
}

// What is kept without an "@eaDir" may get one, beside the copy only.
TEST_F(Losses, StoresThatGetADirectoryOnTheWayAreKept) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(4 << 20));
    const auto goes = [&](const char *command, const char *how, const std::string &to) {
        const ToolResult result = runTool({command, how, tree, volume / to});
        EXPECT_EQ(0, result.status) << command << how << to;
        EXPECT_EQ("", result.err);
        EXPECT_TRUE(kit::exists(volume / (to + "/@eaDir"))) << to;
    };
    const auto told = [&](const char *from, const char *to) {
        const std::string types = tree + "=" + from + ":" + volume.path() + "=" + to;
        ::setenv("VEXOFILEOP_FSTYPES", types.c_str(), 1); // NOLINT(concurrency-mt-unsafe): one thread
    };
    told("2", "19");
    kit::setAttribute(file, "user.netatalk.Metadata", adouble_bytes::metadata().replace(122, 8, "TEXTttxt"));
    goes("copy", "-rv", "from an attribute");
    ASSERT_EQ(0, ::removexattr(file.c_str(), "user.netatalk.Metadata"));
    std::filesystem::remove_all(tree + "/@eaDir"); // which the copy brings about there, too
    for (const char *type : {"5", "18"}) {
        told(type, "2");
        ASSERT_EQ(0, runTool({"ea", "set", file, "com.example.stream", "value"}).status);
        ASSERT_TRUE(kit::exists(tree + "/._file"));
        for (const std::string how : {"-r", "-rv"}) {
            goes("copy", how.c_str(), type + how);
            EXPECT_EQ("value", runTool({"ea", "get", volume / (type + how + "/file"), "com.example.stream"}).out);
        }
    }
    goes("move", "-v", "moved");
    EXPECT_FALSE(kit::exists(tree));
    ::unsetenv("VEXOFILEOP_FSTYPES"); // NOLINT(concurrency-mt-unsafe)
}

TEST_F(Losses, AttributesOfADirectory) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    kit::setAttribute(tree, "user.note", "n");
    const ToolResult moved = runTool({"move", "--accept", "fat", tree, volume.path()});
    EXPECT_EQ(1, moved.status);
    EXPECT_TRUE(mentions(moved.err, "(attribute)\n")) << moved.err;
    EXPECT_EQ("n", kit::attribute(tree, "user.note"));
}

TEST_F(Losses, AccessAclWhoseMaskWouldBecomeTheGroupsRights) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    acl_t acl = ::acl_from_text("u::rw-,u:1234:rw-,g::r--,m::rw-,o::---");
    ASSERT_NE(nullptr, acl);
    ASSERT_EQ(0, ::acl_set_file(file.c_str(), ACL_TYPE_ACCESS, acl));
    ::acl_free(acl);
    const ToolResult result = runTool({"copy", "--accept", "creation-time", file, volume / "file"});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "1 access ACL not kept: ")) << result.err;
    expectKept(volume, "acl-access", "owner,mode,creation-time");
}

// Where the ACL cannot go the group has what the source gives it, whatever is accepted.
TEST_F(Losses, GroupHasNoMoreThanTheSourceGivesWhereItsAclCannotGo) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    const auto give = [](const std::string &path, const char *text) {
        acl_t acl = ::acl_from_text(text);
        ASSERT_EQ(0, ::acl_set_file(path.c_str(), ACL_TYPE_ACCESS, acl));
        ::acl_free(acl);
    };
    constexpr mode_t all = 07777;
    ASSERT_EQ(0, ::mkdir((tree + "/sub").c_str(), 0755));
    ASSERT_EQ(0, ::chmod((tree + "/sub").c_str(), 02755));
    kit::writeFile(tree + "/sub/file", "f");
    ASSERT_EQ(0, ::chmod((tree + "/sub/file").c_str(), 04755));
    give(file, "u::rw-,u:1234:rw-,g::r--,m::rw-,o::---");
    give(tree + "/sub/file", "u::rwx,u:1234:rwx,g::---,m::rwx,o::r--");
    give(tree + "/sub", "u::rwx,u:1234:rwx,g::r-x,m::rwx,o::---");
    const auto expectModes = [&](const std::string &to) {
        EXPECT_EQ(mode_t{0640}, kit::statOf(to + "/file").st_mode & all) << to;
        EXPECT_EQ(mode_t{04704}, kit::statOf(to + "/sub/file").st_mode & all) << to;
        EXPECT_EQ(mode_t{02750}, kit::statOf(to + "/sub").st_mode & all) << to;
    };
    for (const char *accepted : {"creation-time", "creation-time,acl-access"}) {
        const int status = mentions(accepted, "acl") ? 0 : 1;
        const ToolResult planned = runTool({"plan", "copy", "-r", "--accept", accepted, tree, volume / "planned"});
        EXPECT_EQ(status, planned.status) << planned.out;
        EXPECT_FALSE(mentions(planned.out, "(mode)")) << planned.out;
        for (const char *how : {"-r", "-rv"}) {
            const std::string to = volume / (how + std::string(accepted));
            const ToolResult copied = runTool({"copy", how, "--accept", accepted, tree, to});
            EXPECT_EQ(status, copied.status) << copied.err;
            EXPECT_TRUE(mentions(copied.err, "(acl-access)\n")) << copied.err;
            EXPECT_FALSE(mentions(copied.err, "(mode)\n")) << copied.err;
            expectModes(to);
            EXPECT_FALSE(mentions(runTool({"compare", tree, to}).out, "(mode)\n"));
            EXPECT_EQ(status, runTool({"copy", "-rf", "--accept", accepted, tree + "/.", to}).status);
            expectModes(to);
        }
        const std::string single = volume / ("single" + std::string(accepted));
        EXPECT_EQ(status, runTool({"copy", "--accept", accepted, file, single}).status);
        EXPECT_EQ(mode_t{0640}, kit::statOf(single).st_mode & all);
    }
    ASSERT_EQ(0, runTool({"copy", "-r", tree, scratch / "again"}).status);
    EXPECT_EQ(0,
              runTool({"relocate", "-y", "--accept", "creation-time,acl-access", tree, volume / "relocated"}).status);
    expectModes(volume / "relocated");
    const ToolResult moved =
        runTool({"move", "--accept", "creation-time,acl-access,dos-attributes", scratch / "again", volume / "moved"});
    EXPECT_EQ(0, moved.status) << moved.err;
    expectModes(volume / "moved");
}

TEST_F(Losses, WhatIsNobodysInTheStore) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, ::mkdir((tree + "/@eaDir").c_str(), 0777));
    kit::writeFile(tree + "/@eaDir/renamed away@VexoEAStream", "s");
    const ToolResult copied = runTool({"copy", "-r", tree, scratch / "copy"});
    EXPECT_EQ(1, copied.status);
    EXPECT_TRUE(mentions(copied.err, "@eaDir/renamed away@VexoEAStream belongs to no entry (not-carried)\n"))
        << copied.err;
    // A plan and a comparison tell it of the same path, in the same words.
    const std::string line =
        tree + " -> " + scratch / "copy" + ": @eaDir/renamed away@VexoEAStream belongs to no entry";
    for (const Arguments &also : {Arguments{"compare"}, {"plan", "copy", "-rfvT"}, {"copy", "-rfvT"}}) {
        Arguments arguments = also;
        arguments.insert(arguments.end(), {tree, scratch / "copy"});
        EXPECT_TRUE(mentions(runTool(arguments).out, line)) << also.front();
    }
    const ToolResult moved = runTool({"move", tree, volume.path()});
    EXPECT_EQ(1, moved.status);
    EXPECT_TRUE(mentions(moved.err, "@eaDir/renamed away@VexoEAStream belongs to no entry (not-carried)\n"))
        << moved.err;
    EXPECT_TRUE(moved.err.ends_with("vexofileop: the source stays for that\n")) << moved.err;
    EXPECT_EQ("s", kit::readFile(tree + "/@eaDir/renamed away@VexoEAStream"));
    // Whoever accepts it loses nothing either: nobody takes it away.
    EXPECT_NE(0, runTool({"move", "-f", "--accept", "all", tree, volume.path()}).status);
    EXPECT_EQ("s", kit::readFile(tree + "/@eaDir/renamed away@VexoEAStream"));
}

TEST_F(Losses, DirectoryThatIsCalledAlmostLikeTheStores) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, ::mkdir((tree + "/@EADIR").c_str(), 0755));
    kit::writeFile(tree + "/@EADIR/mine", "m");
    for (const char *command : {"move", "relocate"}) {
        kit::writeFile(file, "content");
        const std::string to = volume / command;
        const ToolResult result =
            std::string(command) == "move" ? runTool({"move", tree, to}) : runTool({"relocate", "-y", tree, to});
        EXPECT_EQ(1, result.status) << result.err;
        EXPECT_TRUE(mentions(result.err, "@EADIR")) << result.err;
        EXPECT_EQ("m", kit::readFile(tree + "/@EADIR/mine")) << command;
    }
}

TEST_F(Losses, NamesThatChangeOrBecomeOne) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    kit::writeFile(tree + "/a?", "one");
    kit::writeFile(tree + "/a*", "two");
    ASSERT_EQ(0, ::unlink(file.c_str()));
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=0").c_str(), 1);
    for (const char *policy : {"-r", "-rn", "-rf"}) {
        const ToolResult result =
            runTool({"copy", policy, "--accept", "fat", tree, volume / ("to" + std::string(policy))});
        EXPECT_EQ(1, result.status) << result.err;
        EXPECT_TRUE(mentions(result.err, "1 name changed: ")) << result.err;
        EXPECT_TRUE(mentions(result.err, "another name of the source has become the same one")) << result.err;
        EXPECT_EQ(1U, kit::namesIn(volume / ("to" + std::string(policy))).size());
    }
    const ToolResult moved = runTool({"move", "--accept", "fat,name-changed", tree, volume.path()});
    ::unsetenv("VEXOFILEOP_FSTYPES");
    EXPECT_EQ(1, moved.status);
    EXPECT_EQ(1U, kit::namesIn(tree).size()) << moved.err;
}

TEST_F(Losses, NameThatAnotherWouldGetStaysWithWhoHasIt) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    for (const char *const name : {"a?", "a-", "b-", "b?"}) { // whatever the order of a listing
        kit::writeFile(tree + "/" + name, name);
    }
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=0").c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    const ToolResult planned = runTool({"plan", "copy", "-r", "--json", "--accept", "fat", tree, volume.path()});
    const ToolResult copied = runTool({"copy", "-r", "--json", "--accept", "fat", tree, volume.path()});
    const ToolResult compared = runTool({"compare", "--json", "--ignore", "mode", tree, volume / "tree"});
    ::unsetenv("VEXOFILEOP_FSTYPES"); // NOLINT(concurrency-mt-unsafe)
    EXPECT_EQ("a-", kit::readFile(volume / "tree/a-"));
    EXPECT_EQ("b-", kit::readFile(volume / "tree/b-"));
    for (const std::string &told : {planned.out, copied.out, compared.out}) {
        EXPECT_FALSE(mentions(told, "\"name-changed\"")) << told;
        EXPECT_TRUE(mentions(told, "\"class\":\"name-clash\",\"severity\":\"lost\",\"source\":\"" + tree + "/a?\""))
            << told;
        EXPECT_TRUE(mentions(told, "\"class\":\"name-clash\",\"severity\":\"lost\",\"source\":\"" + tree + "/b?\""))
            << told;
    }
}

// The copy's own name fits, that of the "._" file beside it does not; and what was made under a short one goes.
TEST_F(Losses, NamesThatAreTooLongForWhatIsKeptBesideThem) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20));
    const std::string name(255, 'n');
    ASSERT_EQ(0, ::rename(file.c_str(), (tree + "/" + name).c_str()));
    ASSERT_EQ(0, runTool({"ea", "set", tree + "/" + name, "com.example.note", "note"}).status);
    ::setenv("VEXOFILEOP_FSTYPES", (volume.path() + "=0").c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    ASSERT_EQ(0, ::mkdir((volume / "to").c_str(), 0755));
    const ToolResult planned = runTool({"plan", "copy", "-r", "--accept", "fat", tree, volume / "to"});
    const ToolResult copied = runTool({"copy", "-r", "--accept", "fat", tree, volume / "to"});
    const ToolResult compared = runTool({"compare", tree, volume / "to/tree"});
    const ToolResult moved = runTool({"move", "--accept", "fat", tree, volume.path()});
    ::unsetenv("VEXOFILEOP_FSTYPES"); // NOLINT(concurrency-mt-unsafe)
    for (const std::string &told : {planned.out, copied.err, compared.out, moved.err}) {
        EXPECT_TRUE(mentions(told, "257 bytes are too many for the name of what is kept beside it (name-too-long)\n"))
            << told;
        EXPECT_TRUE(mentions(told, "(stream)\n")) << told;
    }
    EXPECT_EQ(1, planned.status);
    EXPECT_EQ(1, copied.status);
    EXPECT_EQ(std::vector<std::string>{name}, kit::namesIn(volume / "to/tree"));
    EXPECT_EQ(1, moved.status);
    EXPECT_TRUE(kit::exists(tree + "/@eaDir")) << moved.err;
}

TEST_F(Losses, LockThatTheVolumeDoesNotKeep) {
    KIT_REQUIRE(plain, kit::Volume::plain());
    ASSERT_EQ(0, VLIBCKernelAttrCall(file.c_str(), 522)); // locked
    const ToolResult planned = runTool({"plan", "copy", "-r", tree, plain.path()});
    const ToolResult copied = runTool({"copy", "-r", tree, plain.path()});
    EXPECT_TRUE(mentions(planned.out, "only the first is locked (locked)\n")) << planned.out;
    EXPECT_TRUE(mentions(copied.err, "only the first is locked (locked)\n")) << copied.err;
    EXPECT_EQ(copied.status, planned.status);
}

TEST_F(Losses, HolesAndHardLinksCostRoomAlone) {
    ASSERT_EQ(0, ::link(file.c_str(), (tree + "/second").c_str()));
    for (const char *how : {"-r", "-rv"}) {
        const ToolResult result = runTool({"copy", how, "--no-hard-links", tree, scratch / how});
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_TRUE(mentions(result.err, "1 name that became a file of its own, which takes more room: "))
            << result.err;
        EXPECT_TRUE(mentions(result.err, "and becomes one of its own: 7 bytes (hard-link)\n")) << result.err;
    }
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    const ToolResult moved = runTool({"move", "--no-hard-links", tree, volume.path()});
    EXPECT_EQ(0, moved.status) << moved.err;
    EXPECT_TRUE(mentions(moved.err, "1 name that became a file of its own")) << moved.err;
}

TEST_F(Losses, NamesThatAreNoPartOfTheRunAreNobodysLoss) {
    ASSERT_EQ(0, ::link(file.c_str(), (scratch / "elsewhere").c_str()));
    const ToolResult result = runTool({"copy", "-r", tree, scratch / "copy"});
    EXPECT_EQ(0, result.status);
    EXPECT_FALSE(mentions(result.err, "hard-link")) << result.err;
}

TEST_F(Losses, WhatALinkLeadsToHasItsStoreBesideIt) {
    ASSERT_EQ(0, runTool({"ea", "set", file, "note", "x"}).status);
    ASSERT_EQ(0, ::symlink("tree/file", (scratch / "link").c_str()));
    const ToolResult result = runTool({"copy", scratch / "link", scratch / "copy"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("x", runTool({"ea", "get", scratch / "copy", "note"}).out);
}

// ---- --report

TEST_F(Losses, ReportTellsWhatWasDoneAndLost) {
    ASSERT_EQ(0, ::mkfifo((tree + "/<pipe>").c_str(), 0600));
    const std::string page = scratch / "report.html", json = scratch / "report.json";
    EXPECT_EQ(1, runTool({"copy", "-r", "--report", page, tree, scratch / "one"}).status);
    const std::string html = kit::readFile(page);
    EXPECT_TRUE(mentions(html, "<title>1 copied, 7 B</title>")) << html;
    EXPECT_TRUE(mentions(html, "<title>1 skipped, 0 B</title>")) << html;
    EXPECT_TRUE(mentions(html, tree + "/&lt;pipe&gt;</code>")) << html;
    EXPECT_FALSE(mentions(html, "<pipe>")) << html;
    EXPECT_EQ(1, runTool({"relocate", "-y", "--report", json, tree, scratch / "two"}).status);
    EXPECT_TRUE(mentions(kit::readFile(json), R"("class":"special-file")")) << kit::readFile(json);
}

TEST_F(Losses, ReportThatCannotBeWrittenFailsAndLosesNothing) {
    const ToolResult result = runTool({"copy", "--report", scratch / "none/report.html", file, scratch / "copy"});
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(mentions(result.err, "none/report.html: the report cannot be written: ")) << result.err;
    EXPECT_EQ("content", kit::readFile(scratch / "copy"));
    const ToolResult suffix = runTool({"copy", "--report", scratch / "report.txt", file, scratch / "second"});
    EXPECT_EQ(2, suffix.status);
    EXPECT_TRUE(mentions(suffix.err, "ends neither in .html nor in .json")) << suffix.err;
    EXPECT_FALSE(kit::exists(scratch / "second"));
}

// A directory that others may enter is no command's, whatever it is called.
TEST_F(Losses, OwnDirectoryThatIsCalledAsALeftOverStays) {
    const std::string own = scratch / ".vexofileop-4194303-1";
    ASSERT_EQ(0, ::mkdir(own.c_str(), 0755));
    kit::writeFile(own + "/mine", "m");
    EXPECT_EQ(0, runTool({"copy", file, scratch / "copy"}).status);
    EXPECT_EQ("m", kit::readFile(own + "/mine"));
}

// A store is a directory: anything else of that name is the user's.
TEST_F(Losses, OwnFileThatIsCalledAsAStoreIsTold) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    kit::writeFile(tree + "/@eaDir", "mine");
    for (const char *const command : {"plan", "copy", "move"}) {
        Arguments arguments{command};
        if (arguments.front() == "plan") {
            arguments.emplace_back("copy");
        }
        arguments.insert(arguments.end(), {"-r", tree, volume / (std::string("to-") + command)});
        const ToolResult result = runTool(arguments);
        EXPECT_EQ(1, result.status) << command << result.out << result.err;
        EXPECT_TRUE(mentions(result.out + result.err, "kept for metadata")) << command << result.out << result.err;
        EXPECT_EQ("mine", kit::readFile(tree + "/@eaDir")) << command;
    }
}

// ---- --verify

TEST_F(Losses, VerifyReadsWhatWasWritten) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(8 << 20));
    kit::writeFile(tree + "/large", kit::pattern(3 << 20));
    kit::writeSparse(tree + "/sparse", 1 << 20, {{65536, 4096}});
    const ToolResult copied = runTool({"copy", "-r", "--verify", tree, scratch / "copy"});
    EXPECT_EQ(0, copied.status) << copied.err;
    const ToolResult moved = runTool({"move", "--verify", tree, volume.path()});
    EXPECT_EQ(0, moved.status) << moved.err;
    EXPECT_EQ(kit::pattern(3 << 20), kit::readFile(volume / "tree/large"));
    EXPECT_FALSE(kit::exists(tree));
}

TEST_F(Losses, VerifyTakesFilesOfSeveralNames) {
    ASSERT_EQ(0, ::link(file.c_str(), (tree + "/second").c_str()));
    ASSERT_EQ(0, ::link(file.c_str(), (scratch / "elsewhere").c_str()));
    for (const Arguments &more : {Arguments{}, Arguments{"--no-hard-links"}}) {
        Arguments arguments{"copy", "-rf", "--verify"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        arguments.insert(arguments.end(), {tree, scratch / "copy"});
        const ToolResult result = runTool(arguments);
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_FALSE(mentions(result.err, "read back")) << result.err;
    }
}

TEST_F(Losses, VerifyWritesNothingWhereTheOldFileCouldNotComeBack) {
    ASSERT_EQ(0, ::mkdir((scratch / "closed").c_str(), 0755));
    kit::writeFile(scratch / "closed/file", "old");
    ASSERT_EQ(0, ::chmod((scratch / "closed/file").c_str(), 0666));
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
    const ToolResult result = runTool({"copy", "-f", "--verify", file, scratch / "closed/file"}, {.user = 1234});
    EXPECT_EQ(2, result.status) << result.err;
    EXPECT_TRUE(mentions(result.err, "until it is verified; not replaced")) << result.err;
    EXPECT_EQ("old", kit::readFile(scratch / "closed/file"));
}

} // namespace
