// What the kernel will not let a run do, and what a run does otherwise than it was asked: a plan knows it beforehand,
// and ends with the status of the run.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/acl.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

using kit::Arguments;
using kit::mentions;
using kit::runTool;
using kit::ToolResult;
using kit::ToolSetting;

constexpr uid_t kNobody = 65534;

void setFlag(const std::string &path, int flag, bool on) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    int flags = 0;
    ASSERT_EQ(0, ::ioctl(fd, FS_IOC_GETFLAGS, &flags)) << path;
    flags = on ? flags | flag : flags & ~flag;
    ASSERT_EQ(0, ::ioctl(fd, FS_IOC_SETFLAGS, &flags)) << path;
    ::close(fd);
}

// The losses that are told, as "class source".
std::set<std::string> lossesTold(const std::string &json) {
    const auto value = [](const std::string &line, const std::string &key) {
        const std::string before = "\"" + key + "\":\"";
        const size_t at = line.find(before);
        const size_t start = at + before.size();
        return at == std::string::npos ? std::string() : line.substr(start, line.find('"', start) - start);
    };
    std::set<std::string> told;
    std::istringstream lines(json);
    for (std::string line; std::getline(lines, line);) {
        if (value(line, "event") == "loss") {
            told.insert(value(line, "class") + " " + value(line, "source"));
        }
    }
    return told;
}

class PlanRefusals : public ::testing::Test {
  protected:
    void SetUp() override {
        KIT_NEEDS_ROOT("to mount volumes and to become another user");
        ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
        ASSERT_EQ(0, ::mkdir(from.c_str(), 0755));
        ASSERT_EQ(0, ::mkdir(to.c_str(), 0755));
        kit::writeFile(from + "/file", "content", 0644);
    }
    // The plan of a command has the status of its run, and tells why.
    static void expect(int status, const Arguments &command, const std::string &reason,
                       const ToolSetting &setting = {}) {
        Arguments plan = command;
        plan.insert(plan.begin(), "plan");
        const ToolResult planned = runTool(plan, setting), run = runTool(command, setting);
        EXPECT_EQ(status, planned.status) << planned.out << planned.err;
        EXPECT_EQ(status, run.status) << run.out << run.err;
        EXPECT_TRUE(mentions(planned.out, reason)) << planned.out;
        EXPECT_TRUE(mentions(run.out + run.err, reason)) << run.out << run.err;
    }

    // The plan of a copy tells the losses of its run, and those are of these classes.
    static void expectLosses(const std::set<std::string> &classes, const Arguments &options, const std::string &source,
                             const std::string &destination, const ToolSetting &setting) {
        Arguments run = {"copy", "--json"};
        run.insert(run.end(), options.begin(), options.end());
        run.insert(run.end(), {source, destination});
        Arguments plan = run;
        plan.insert(plan.begin(), "plan");
        const ToolResult planned = runTool(plan, setting), done = runTool(run, setting);
        EXPECT_EQ(lossesTold(done.out), lossesTold(planned.out));
        EXPECT_EQ(done.status, planned.status) << done.out << planned.out;
        std::set<std::string> told;
        for (const std::string &one : lossesTold(done.out)) {
            told.insert(one.substr(0, one.find(' ')));
        }
        EXPECT_EQ(classes, told) << done.out;
    }

    kit::ScratchDirectory scratch;
    const std::string from = scratch / "from", to = scratch / "to";
};

TEST_F(PlanRefusals, ASourceOnAReadOnlyVolume) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, ::mkdir((volume / "tree").c_str(), 0755));
    kit::writeFile(volume / "tree/file", "content");
    volume.setReadOnly(true);
    expect(2, {"move", volume / "tree/file", to}, "the source could not be removed");
    expect(2, {"move", volume / "tree", to}, "the source could not be removed");
    volume.setReadOnly(false);
}

// Whatever is tried there first: what an ACL gives a group is given where nobody else gets in.
TEST_F(PlanRefusals, AReadOnlyDestination) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    const std::string none(4, '\xFF');
    const std::string acl = std::string("\2\0\0\0\1\0\6\0", 8) + none + std::string("\2\0\6\0\1\0\0\0\4\0\4\0", 12) +
                            none + std::string("\x10\0\6\0", 4) + none + std::string("\x20\0\4\0", 4) + none;
    kit::writeFile(from + "/granted", "content");
    const int given = ::setxattr((from + "/granted").c_str(), "system.posix_acl_access", acl.data(), acl.size(), 0);
    ASSERT_EQ(0, given);
    volume.setReadOnly(true);
    for (const char *name : {"/file", "/granted"}) {
        expect(2, {"copy", from + name, volume.path()}, "read-only file system");
        expect(2, {"move", from + name, volume.path()}, "read-only file system");
    }
    volume.setReadOnly(false);
}

TEST_F(PlanRefusals, ASourceInADirectoryOfSomebodyElse) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, ::chown(volume.path().c_str(), kNobody, kNobody));
    ASSERT_EQ(0, ::chown(to.c_str(), kNobody, kNobody));
    ASSERT_EQ(0, ::chown((from + "/file").c_str(), kNobody, kNobody));
    ASSERT_EQ(0, ::mkdir((from + "/own").c_str(), 0755));
    ASSERT_EQ(0, ::chown((from + "/own").c_str(), kNobody, kNobody));
    expect(2, {"move", from + "/file", volume.path()}, "the source could not be removed", {.user = kNobody});
    expect(2, {"move", from + "/file", to}, "permission denied", {.user = kNobody});
    expect(2, {"move", from + "/own", to}, "permission denied", {.user = kNobody});
}

TEST_F(PlanRefusals, WhatIsImmutable) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20));
    kit::writeFile(volume / "file", "older");
    setFlag(volume / "file", FS_IMMUTABLE_FL, true);
    expect(2, {"copy", "-f", from + "/file", volume.path()}, "permission denied");
    expect(2, {"move", volume / "file", to}, "the source could not be removed");
    setFlag(volume / "file", FS_IMMUTABLE_FL, false);
    EXPECT_EQ("older", kit::readFile(volume / "file"));
}

// A copy gets its name by a renaming, for which its private one has to go.
TEST_F(PlanRefusals, ADirectoryThatIsAppendOnly) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20));
    ASSERT_EQ(0, ::mkdir((volume / "into").c_str(), 0755));
    setFlag(volume / "into", FS_APPEND_FL, true);
    expect(2, {"copy", from + "/file", volume / "into"}, "its directory is append-only");
    EXPECT_TRUE(kit::namesIn(volume / "into").empty());
    setFlag(volume / "into", FS_APPEND_FL, false);
}

TEST_F(PlanRefusals, AFileOfSomebodyElseInAStickyDirectory) {
    ASSERT_EQ(0, ::chmod(to.c_str(), 01777));
    kit::writeFile(to + "/file", "root's", 0644);
    expect(2, {"copy", "-f", from + "/file", to}, "permission denied", {.user = kNobody});
    ASSERT_EQ(0, ::chmod((to + "/file").c_str(), 0666));
    expect(2, {"copy", "-f", from + "/file", to}, "permission denied", {.user = kNobody});
    EXPECT_EQ("root's", kit::readFile(to + "/file"));
}

// Nothing is lost by it, and it is told.
TEST_F(PlanRefusals, AFileThatCanOnlyBeWrittenInPlace) {
    kit::writeFile(to + "/file", "older", 0644);
    ASSERT_EQ(0, ::chown((to + "/file").c_str(), kNobody, kNobody));
    ASSERT_EQ(0, ::chown((from + "/file").c_str(), kNobody, kNobody));
    const std::string why = "nothing can be made in its directory, where ";
    for (const char *const way : {"--backup", "--verify", "--clone"}) {
        expect(2, {"copy", "-f", way, from + "/file", to}, why, {.user = kNobody});
    }
    EXPECT_EQ("older", kit::readFile(to + "/file"));
    const Arguments command = {"copy", "-f", from + "/file", to};
    expect(0, command, "in place", {.user = kNobody});
    EXPECT_EQ("content", kit::readFile(to + "/file"));
    EXPECT_EQ("vexofileop: 1 file written in place, since nothing can be made in its directory\n",
              runTool(command, {.user = kNobody}).err);
}

TEST_F(PlanRefusals, ANameThatIsWrittenInPlaceIsNoLink) {
    ASSERT_EQ(0, ::link((from + "/file").c_str(), (from + "/other").c_str()));
    kit::writeFile(to + "/other", "older");
    const Arguments command = {"copy", "-f", "--in-place", from + "/file", from + "/other", to};
    expect(0, command, "1 name that became a file of its own");
    // As one file at both, they stay that.
    ASSERT_EQ(0, ::unlink((to + "/other").c_str()));
    ASSERT_EQ(0, ::link((to + "/file").c_str(), (to + "/other").c_str()));
    Arguments plan = command;
    plan.insert(plan.begin(), "plan");
    const ToolResult planned = runTool(plan), run = runTool(command);
    EXPECT_FALSE(mentions(planned.out, "of its own")) << planned.out;
    EXPECT_FALSE(mentions(run.err, "of its own")) << run.err;
}

// Who may write to it may not set what is its owner's.
TEST_F(PlanRefusals, AFileOfSomebodyElseThatIsWrittenInPlace) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20));
    const std::string older = volume / "file";
    kit::writeFile(older, "older", 0666);
    ASSERT_EQ(0, ::chmod(older.c_str(), 0666));
    const timespec past[] = {{1'500'000'000, 0}, {1'500'000'000, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, (from + "/file").c_str(), past, 0));
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, older.c_str(), past, 0));
    const ToolSetting user = {.user = kNobody};
    const std::set<std::string> kept = {"mode", "creation-time", "modification-time"};
    expectLosses(kept, {"-f"}, from + "/file", volume.path(), user); // since the directory cannot be written
    EXPECT_EQ("content", kit::readFile(older));
    ASSERT_EQ(0, ::chmod(volume.path().c_str(), 0777));
    expectLosses(kept, {"-f", "--in-place"}, from + "/file", volume.path(), user);
    // Of another owner than the source's, too, and with an ACL.
    ASSERT_EQ(0, ::chown(older.c_str(), 1, 2));
    const acl_t acl = ::acl_from_text("u::rw,u:7:rw,g::rw,m::rw,o::rw");
    ASSERT_EQ(0, ::acl_set_file(older.c_str(), ACL_TYPE_ACCESS, acl));
    ::acl_free(acl);
    expectLosses({"owner", "group", "mode", "acl-access", "creation-time", "modification-time"}, {"-f", "--in-place"},
                 from + "/file", volume.path(), user);
}

TEST_F(PlanRefusals, DirectoriesOfSomebodyElseThatAreMergedInto) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20));
    const timespec past[] = {{1'500'000'000, 0}, {1'500'000'000, 0}};
    for (const std::string &path : {from + "/inner", volume / "from", volume / "from/inner"}) {
        ASSERT_EQ(0, ::mkdir(path.c_str(), 0755));
    }
    for (const std::string &path : {volume.path(), volume / "from", volume / "from/inner"}) {
        ASSERT_EQ(0, ::chmod(path.c_str(), 0777));
    }
    ASSERT_EQ(0, ::unlink((from + "/file").c_str()));
    for (const std::string &path : {from + "/inner", from}) {
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), past, 0));
    }
    const ToolSetting user = {.user = kNobody};
    expectLosses({"mode", "creation-time", "modification-time"}, {"-r"}, from, volume.path(), user);
    for (const std::string &path : {from + "/inner", from}) {
        ASSERT_EQ(0, ::chown(path.c_str(), kNobody, kNobody));
    }
    expectLosses({"owner", "group", "mode", "creation-time", "modification-time"}, {"-r"}, from, volume.path(), user);
    // In his own he sets what he may, and a group that is the source's already stays.
    for (const std::string &path : {volume / "from", volume / "from/inner"}) {
        ASSERT_EQ(0, ::chown(path.c_str(), kNobody, 7));
    }
    for (const std::string &path : {from + "/inner", from}) {
        ASSERT_EQ(0, ::chown(path.c_str(), 1, 7));
    }
    expectLosses({"owner"}, {"-r"}, from, volume.path(), user);
}

// The entries of a directory are compared also by who may not read what is kept for them.
TEST_F(PlanRefusals, EntriesBesideAStoreThatCannotBeRead) {
    ASSERT_EQ(0, ::mkdir((from + "/@eaDir").c_str(), 0700));
    kit::writeFile(from + "/only here", "content", 0644);
    kit::writeFile(to + "/file", "content", 0644);
    const ToolResult compared = runTool({"compare", from, to}, {.user = kNobody});
    EXPECT_EQ(2, compared.status);
    EXPECT_TRUE(mentions(compared.out + compared.err, "\"@eaDir\" cannot be opened")) << compared.out << compared.err;
    EXPECT_TRUE(mentions(compared.out, "only here")) << compared.out;
}

// What a file that is written into has of its own stays, and is told.
TEST_F(PlanRefusals, AttributesOfAFileThatIsWrittenInPlace) {
    kit::writeFile(to + "/file", "older");
    kit::setAttribute(to + "/file", "user.old", "stays");
    kit::setAttribute(to + "/file", "trusted.old", "stays");
    const Arguments command = {"copy", "-fv", "--in-place", from + "/file", to};
    for (const char *const name : {"user.old", "trusted.old"}) {
        expect(1, command, std::string("attribute ") + name + ": only at the second");
    }
}

// Attributes take blocks, too.
TEST_F(PlanRefusals, AHoleBesideLongAttributesIsNotTakenForFilled) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20, "-b 4096"));
    KIT_REQUIRE(source, kit::Volume::tmpfs(1 << 20));
    kit::writeSparse(source / "hole", 2533, {});
    kit::setAttribute(source / "hole", "user.long", std::string(2000, 'a'));
    expect(0, {"copy", source / "hole", volume.path()}, "");
    EXPECT_EQ(0, runTool({"compare", source / "hole", volume / "hole"}).status);
}

TEST_F(PlanRefusals, NothingIsLinkedToWhatCannotBeCloned) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, ::link((from + "/file").c_str(), (from + "/other").c_str()));
    const Arguments command = {"copy", "-rf", "--clone=always", "-T", from, volume / "copy"};
    expect(2, command, "2 failed");
}

// Of what finds no room as well.
TEST_F(PlanRefusals, TheWholeNeedIsTold) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(256 << 10));
    for (const char *const name : {"/a", "/b", "/c"}) {
        kit::writeFile(from + name, std::string(200 << 10, 'x'));
    }
    ASSERT_EQ(0, ::unlink((from + "/file").c_str()));
    expect(1, {"copy", "-r", "-T", from, volume / "copy"}, "2 failed");
    ASSERT_EQ(0, runTool({"remove", "-r", volume / "copy"}).status);
    const ToolResult planned = runTool({"plan", "copy", "--json", "-r", "-T", from, volume / "copy"});
    EXPECT_TRUE(mentions(planned.out, "\"bytes_needed\":614400,\"inodes_needed\":4,")) << planned.out;
}

// What the volume makes of a creation time hangs on the other times: one directory's answer is none for the next.
TEST_F(PlanRefusals, ACreationTimeIsToldOfEachDirectory) {
    KIT_REQUIRE(volume, kit::Volume::fuse("ntfs-3g", 64 << 20));
    ASSERT_EQ(0, ::mkdir((from + "/d").c_str(), 0755));
    kit::writeFile(from + "/d/file", "");
    const timespec old[] = {{978'307'200, 0}, {978'307'200, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, (from + "/d").c_str(), old, 0));
    const auto told = [](const std::string &text) {
        size_t lines = 0;
        for (size_t at = text.find("creation time differs"); at != std::string::npos;
             at = text.find("creation time differs", at + 1)) {
            ++lines;
        }
        return lines;
    };
    const ToolResult planned = runTool({"plan", "copy", "--json", "-r", "-T", from, volume / "copy"});
    const ToolResult run = runTool({"copy", "--json", "-r", "-T", from, volume / "copy"});
    EXPECT_EQ(told(run.out), told(planned.out)) << run.out << planned.out;
    EXPECT_EQ(run.status, planned.status);
}

// FAT has no such times, and a driver that is a program says so only once the volume is mounted anew.
TEST_F(PlanRefusals, TimesThatExfatDoesNotKeepAreLost) {
    KIT_REQUIRE(volume, kit::Volume::fuse("exfat-fuse", 64 << 20));
    for (const time_t seconds : {time_t{157'766'400}, time_t{5'680'281'600}}) { // 1975, 2150
        const timespec times[] = {{seconds, 0}, {seconds, 0}};
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, (from + "/file").c_str(), times, 0));
        expect(1, {"move", "-f", "--accept", "mode,creation-time", from + "/file", volume.path()},
               "1 modification time not kept");
        EXPECT_EQ("content", kit::readFile(from + "/file"));
        EXPECT_TRUE(mentions(runTool({"compare", from + "/file", volume / "file"}).out, "(modification-time)"));
    }
}

// Who may not read the device asks what the machine has noted of it when it came.
TEST_F(PlanRefusals, TimesThatExfatDoesNotKeepAreLostToEverybody) {
    KIT_REQUIRE(volume, kit::Volume::fuse("exfat-fuse", 64 << 20, "uid=65534"));
    const timespec times[] = {{157'766'400, 0}, {157'766'400, 0}}; // 1975
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, (from + "/file").c_str(), times, 0));
    const dev_t device = kit::statOf(volume.path()).st_dev;
    const std::string notes = "/run/udev/data",
                      note = notes + "/b" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
    ASSERT_EQ(0, ::mount("none", "/run", "tmpfs", 0, nullptr)); // in this process' own tree of mounts
    for (const char *directory : {"/run/udev", "/run/udev/data"}) {
        ASSERT_EQ(0, ::mkdir(directory, 0755));
    }
    kit::writeFile(note, "S:disk/by-label/X\nE:ID_FS_TYPE=exfat\nG:systemd\n", 0644);
    const ToolSetting nobody{.user = kNobody};
    expect(1, {"copy", "-f", "--accept", "owner,group,mode,creation-time", from + "/file", volume.path()},
           "1 modification time not kept", nobody);
    const auto told = [&] { return runTool({"compare", from + "/file", volume / "file"}, nobody).out; };
    EXPECT_TRUE(mentions(told(), "(modification-time)"));
    ASSERT_EQ(0, ::umount2("/run", MNT_DETACH));
    EXPECT_FALSE(mentions(told(), "(modification-time)"));
}

TEST_F(PlanRefusals, LinksKeepTheirAccessTime) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, ::mkdir((volume / "one").c_str(), 0755));
    ASSERT_EQ(0, ::symlink("to here", (volume / "one/link").c_str()));
    ASSERT_EQ(0, ::symlink("to here", (volume / "one/changed").c_str()));
    ASSERT_EQ(0, runTool({"copy", "-rT", volume / "one", volume / "two"}).status);
    ASSERT_EQ(0, ::unlink((volume / "one/changed").c_str()));
    ASSERT_EQ(0, ::symlink("elsewhere", (volume / "one/changed").c_str()));
    // As long as before, and of the same time.
    ASSERT_EQ(0, ::symlink("to hear", (volume / "one/turned").c_str()));
    ASSERT_EQ(0, ::symlink("to here", (volume / "two/turned").c_str()));
    const timespec old[] = {{1000, 0}, {0, UTIME_OMIT}}, both[] = {{1000, 0}, {2000, 0}};
    for (const char *const link : {"one/turned", "two/turned"}) {
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, (volume / link).c_str(), both, AT_SYMLINK_NOFOLLOW));
    }
    for (const char *const link : {"one/link", "two/link", "one/changed", "two/changed"}) {
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, (volume / link).c_str(), old, AT_SYMLINK_NOFOLLOW));
    }
    const ToolResult update = runTool({"plan", "copy", "-ruvT", volume / "one", volume / "two"});
    EXPECT_TRUE(mentions(update.out, "/two/link: the same already")) << update.out;
    EXPECT_TRUE(mentions(update.out, "replace: " + volume / "one/changed")) << update.out;
    EXPECT_TRUE(mentions(update.out, "replace: " + volume / "one/turned")) << update.out;
    EXPECT_EQ(0, runTool({"plan", "mirror", volume / "one", volume / "two"}).status);
    for (const char *const link : {"one/link", "two/link", "one/changed", "two/changed", "one/turned", "two/turned"}) {
        EXPECT_EQ(1000, kit::statOf(volume / link).st_atim.tv_sec) << link;
    }
}

// What is lost of one file is no answer for another one that has all in common with it but its size.
TEST_F(PlanRefusals, AFileThatIsTooLargeIsToldOfThatOneAlone) {
    KIT_REQUIRE(large, kit::Volume::tmpfs(1 << 20));
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20));
    constexpr off_t tooMuch = off_t{20} << 40;
    for (const char *const name : {"a", "z"}) {
        const std::string file = large / name;
        kit::writeFile(large / "m", "ten bytes.");
        kit::writeSparse(file, tooMuch, {{0, 10}});
        const Arguments command = {"copy", "--json", "-r", "-T", large.path(), volume / "copy"};
        Arguments plan = command;
        plan.insert(plan.begin(), "plan");
        const std::string planned = runTool(plan).out;
        EXPECT_TRUE(mentions(planned, "\"class\":\"file-too-large\",\"severity\":\"lost\",\"count\":1,")) << planned;
        expect(1, command, "file-too-large");
        EXPECT_EQ("ten bytes.", kit::readFile(volume / "copy/m"));
        ASSERT_EQ(0, ::unlink(file.c_str()));
        ASSERT_EQ(0, runTool({"remove", "-r", volume / "copy"}).status);
    }
}

// Set-id bits go when somebody writes content to what is not the owner's: not from an empty file.
TEST_F(PlanRefusals, AModeIsToldOfAFileWithContentAfterAnEmptyOne) {
    ASSERT_EQ(0, ::chown(to.c_str(), kNobody, kNobody));
    kit::writeFile(from + "/a", "");
    kit::writeFile(from + "/b", "content");
    for (const char *const name : {"/a", "/b"}) {
        ASSERT_EQ(0, ::chmod((from + name).c_str(), 04755));
    }
    const ToolSetting nobody{.user = kNobody};
    const Arguments command = {"copy", "-v", from + "/a", from + "/b", to};
    expect(1, command, "(mode)", nobody);
    ASSERT_EQ(0, ::unlink((to + "/a").c_str()));
    ASSERT_EQ(0, ::unlink((to + "/b").c_str()));
    Arguments plan = command;
    plan.insert(plan.begin(), "plan");
    const std::string planned = runTool(plan, nobody).out, why = "/b: permissions differ";
    EXPECT_TRUE(mentions(planned, why)) << planned;
    EXPECT_FALSE(mentions(planned, "/a: permissions differ")) << planned;
}

TEST_F(PlanRefusals, ATimeOfALinkThatTheVolumeDoesNotKeepIsLost) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 64 << 20));
    KIT_REQUIRE(source, kit::Volume::tmpfs(1 << 20));
    ASSERT_EQ(0, ::symlink("to here", (source / "link").c_str()));
    const Arguments command = {"copy", "-rT", source.path(), volume / "copy"};
    constexpr time_t year2500 = 16'725'225'600;
    const timespec times[] = {{1000, 0}, {year2500, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, (source / "link").c_str(), times, AT_SYMLINK_NOFOLLOW));
    expect(1, command, "modification time differs");
    ASSERT_EQ(0, ::unlink((volume / "copy/link").c_str()));
    const timespec kept[] = {{1000, 0}, {1'000'000'000, 123'456'789}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, (source / "link").c_str(), kept, AT_SYMLINK_NOFOLLOW));
    expect(0, command, "");
}

TEST_F(PlanRefusals, AHoleOfLessThanABlockIsFilled) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    for (const off_t size : {off_t{1}, off_t{511}, off_t{512}, off_t{513}, off_t{4196}, off_t{8192}}) {
        const std::string name = "hole" + std::to_string(size);
        kit::writeSparse(from + "/" + name, size,
                         size == 4196 ? std::vector<kit::Extent>{{0, 4096}} : std::vector<kit::Extent>{});
        const Arguments command = {"copy", "--json", from + "/" + name, volume.path()};
        Arguments plan = command;
        plan.insert(plan.begin(), "plan");
        const ToolResult planned = runTool(plan), run = runTool(command);
        EXPECT_EQ(run.status, planned.status) << size;
        EXPECT_EQ(mentions(run.out, "\"hole\""), mentions(planned.out, "\"hole\"")) << size << run.out << planned.out;
    }
}

// Its target is too long for the volume, not its name.
TEST_F(PlanRefusals, ALinkWhoseTargetIsTooLong) {
    KIT_REQUIRE(volume, kit::Volume::loop("xfs", 320 << 20));
    ASSERT_EQ(0, ::mkdir((from + "/tree").c_str(), 0755));
    for (const size_t length : {size_t{1023}, size_t{1024}, size_t{4000}}) {
        ASSERT_EQ(0, ::symlink(std::string(length, 't').c_str(), (from + "/tree/link").c_str()));
        const Arguments command = {"copy", "--json", "-rT", from + "/tree", volume / "copy"};
        Arguments plan = command;
        plan.insert(plan.begin(), "plan");
        const ToolResult planned = runTool(plan), run = runTool(command);
        EXPECT_EQ(length < 1024 ? 0 : 1, planned.status) << length << planned.out;
        EXPECT_EQ(planned.status, run.status) << length << run.out;
        for (const std::string &told : {planned.out, run.out}) {
            EXPECT_EQ(length >= 1024, mentions(told, "\"symbolic-link\"")) << length << told;
            EXPECT_FALSE(mentions(told, "name-too-long")) << length << told;
        }
        ASSERT_EQ(0, runTool({"remove", "-r", volume / "copy"}).status);
        ASSERT_EQ(0, ::unlink((from + "/tree/link").c_str()));
    }
}

// What is not made has no losses.
TEST_F(PlanRefusals, WhatCannotBeClonedLosesNothing) {
    KIT_REQUIRE(plain, kit::Volume::plain());
    kit::setAttribute(from + "/file", "user.note", "a note");
    const Arguments command = {"copy", "--json", "--clone=always", from + "/file", plain.path()};
    expect(2, command, "clone");
    Arguments plan = command;
    plan.insert(plan.begin(), "plan");
    EXPECT_FALSE(mentions(runTool(command).out, "user.note")) << runTool(command).out;
    EXPECT_FALSE(mentions(runTool(plan).out, "user.note")) << runTool(plan).out;
}

} // namespace
