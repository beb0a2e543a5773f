// vexofileop backup run: an archive bit goes only when what it stands for is in the backup, and the list says what
// went.
#include "tests/ea/stream_bytes.h"
#include "tests/faults/system_calls.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/sanitized.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <ostream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using kit::mentions;
using kit::runTool;
using kit::ToolOnTerminal;
using kit::ToolResult;

constexpr char kRecord[] = "user.DOSATTRIB";
constexpr size_t kAttributes = 12; // where they are in the record
constexpr char kArchive = 0x20;

// As a client does that has changed the file.
void setBit(const std::string &path, bool on = true) {
    std::string record("\0\0\5\0\5\0\0\0\1\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 24);
    record[kAttributes] = on ? kArchive : 0;
    kit::setAttribute(path, kRecord, record);
}

bool hasBit(const std::string &path) {
    const std::string record = kit::attribute(path, kRecord);
    return record.size() == 24 && (record[kAttributes] & kArchive) != 0;
}

void putChanged(const std::string &path, const std::string &content) {
    kit::writeFile(path, content);
    setBit(path);
}

void makeBackupDirectory(const std::string &path) {
    ASSERT_EQ(0, ::mkdir(path.c_str(), 0755)) << path;
}

class ArchiveBackup : public ::testing::Test {
  protected:
    void SetUp() override {
        makeBackupDirectory(tree);
        makeBackupDirectory(tree + "/in");
        putChanged(tree + "/one", "one");
        putChanged(tree + "/in/two", "two");
        kit::writeFile(tree + "/old", "saved before");
        ASSERT_EQ(0, ::symlink("one", (tree + "/link").c_str()));
    }
    ToolResult backUp(kit::Arguments options = {}) const {
        options.insert(options.begin(), {"backup", "run"});
        options.insert(options.end(), {tree, copy});
        return runTool(options);
    }
    std::vector<std::string> lists() const {
        std::vector<std::string> found = kit::namesIn(scratch.path());
        std::erase_if(found, [](const std::string &name) { return !name.ends_with(".list"); });
        return found;
    }
    // The lines in order, without the first one, which tells the time.
    std::string lastList() const {
        const auto all = lists();
        std::istringstream text(all.empty() ? "" : kit::readFile(scratch / all.back()));
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);) {
            lines.push_back(line);
        }
        std::string sorted;
        lines.erase(lines.begin(), lines.begin() + (all.empty() ? 0 : 1));
        std::sort(lines.begin(), lines.end());
        for (const std::string &line : lines) {
            sorted += line + "\n";
        }
        return all.empty() ? "none" : sorted;
    }
    void removeLists() const {
        for (const std::string &name : lists()) {
            ASSERT_EQ(0, ::unlink((scratch / name).c_str()));
        }
    }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", copy = scratch / "copy";
};

TEST_F(ArchiveBackup, FullOneTakesEverythingAndTheNextOneWhatWasChangedSince) {
    const ToolResult full = backUp({"--full"});
    EXPECT_EQ(0, full.status) << full.err;
    EXPECT_EQ("", full.err);
    EXPECT_TRUE(mentions(full.out, "4 files and 2 directories copied")) << full.out;
    EXPECT_TRUE(mentions(full.out, ", 2 archive bits cleared; listed in " + copy + ".")) << full.out;
    EXPECT_EQ(0, runTool({"compare", tree, copy}).status);
    for (const char *name : {"/one", "/in/two", "/old"}) {
        EXPECT_FALSE(hasBit(tree + name)) << name;
    }
    EXPECT_EQ("# 4 entries, 18 bytes, 0 failed\ncopied\t0\tlink\ncopied\t12\told\ncopied\t3\tin/two\ncopied\t3\tone\n",
              lastList());
    ASSERT_EQ(1U, lists().size());
    const std::string name = lists().front();
    EXPECT_TRUE(std::regex_match(name, std::regex("copy\\.\\d{4}-\\d\\d-\\d\\dT\\d\\d-\\d\\d-\\d\\dZ\\.list"))) << name;
    EXPECT_EQ(0600U, kit::statOf(scratch / name).st_mode & 07777) << "names are nobody else's";
    removeLists();

    putChanged(tree + "/in/two", "two, later");
    kit::writeFile(tree + "/old", "changed, and not said so");
    const ToolResult next = backUp();
    EXPECT_EQ(0, next.status) << next.err;
    EXPECT_EQ("# 1 entry, 10 bytes, 0 failed\ncopied\t10\tin/two\n", lastList());
    EXPECT_EQ("two, later", kit::readFile(copy + "/in/two"));
    EXPECT_EQ("saved before", kit::readFile(copy + "/old"));
    EXPECT_FALSE(hasBit(tree + "/in/two"));
    removeLists();
    const ToolResult nothing = backUp();
    EXPECT_EQ(0, nothing.status) << nothing.err;
    EXPECT_EQ("# 0 entries, 0 bytes, 0 failed\n", lastList());
    // Clearing a bit has touched no time that a copy looks at.
    EXPECT_TRUE(mentions(runTool({"copy", "-ruv", tree + "/in", copy}).out, "two (the same already)"));
}

// A name of the destination that was mistyped.
TEST_F(ArchiveBackup, WithNothingToAddToItSaysSo) {
    ASSERT_EQ(0, backUp({"--full"}).status);
    EXPECT_EQ(1, runTool({"plan", "backup", tree, copy + "s"}).status);
    const ToolResult mistyped = runTool({"backup", "run", "-q", tree, copy + "s"});
    EXPECT_EQ(1, mistyped.status);
    EXPECT_TRUE(mentions(mistyped.err, "copys: there is no backup yet, and nothing has the archive bit; --full"))
        << mistyped.err;
    putChanged(tree + "/one", "one");
    const ToolResult some = runTool({"backup", "run", tree, copy + "t"});
    EXPECT_EQ(0, some.status) << some.err;
    EXPECT_TRUE(mentions(some.err, "copyt: there was no backup, and only what has the archive bit came")) << some.err;
    putChanged(tree + "/one", "one more");
    EXPECT_EQ("", backUp().err);
}

// The way out that is told.
TEST_F(ArchiveBackup, FileThatBecameADirectoryComesOnceTheOldOneIsMoved) {
    ASSERT_EQ(0, backUp({"--full"}).status);
    ASSERT_EQ(0, ::unlink((tree + "/one").c_str()));
    makeBackupDirectory(tree + "/one");
    putChanged(tree + "/one/inner", "inner");
    std::filesystem::remove_all(tree + "/in");
    putChanged(tree + "/in", "a file");
    for (const std::string name : {"/in", "/one"}) { // the first in the way is named
        const ToolResult result = backUp();
        EXPECT_NE(0, result.status);
        EXPECT_TRUE(mentions(result.err, copy + name + " is kept, and in the way of what has its name now: move it"))
            << result.err;
        ASSERT_EQ(0, runTool({"move", copy + name, copy + name + ".old"}).status);
    }
    const ToolResult result = backUp();
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("a file", kit::readFile(copy + "/in"));
    EXPECT_EQ("inner", kit::readFile(copy + "/one/inner"));
    EXPECT_EQ("one", kit::readFile(copy + "/one.old"));
    EXPECT_EQ("two", kit::readFile(copy + "/in.old/two"));
    EXPECT_FALSE(hasBit(tree + "/in") || hasBit(tree + "/one/inner"));
}

// What is deleted stays in the backup, and so does its directory.
TEST_F(ArchiveBackup, WhatIsDeletedStaysInTheBackup) {
    ASSERT_EQ(0, backUp({"--full"}).status);
    ASSERT_EQ(0, ::unlink((tree + "/in/two").c_str()));
    ASSERT_EQ(0, ::rmdir((tree + "/in").c_str()));
    EXPECT_EQ(0, backUp().status);
    EXPECT_EQ("two", kit::readFile(copy + "/in/two"));
}

TEST_F(ArchiveBackup, DirectoryHasABitOfItsOwn) {
    setBit(tree + "/in");
    EXPECT_EQ(0, backUp().status);
    EXPECT_FALSE(hasBit(tree + "/in"));
}

TEST_F(ArchiveBackup, WhatDoesNotArriveKeepsItsBit) {
    // A directory in its place; left out; no right to be read is for who is not root.
    makeBackupDirectory(copy);
    makeBackupDirectory(copy + "/one");
    putChanged(tree + "/left", "left out");
    const ToolResult result = backUp({"--exclude", "/left"});
    EXPECT_EQ(1, result.status) << result.err;
    EXPECT_TRUE(mentions(result.err, "the destination is a directory")) << result.err;
    EXPECT_TRUE(hasBit(tree + "/one"));
    EXPECT_TRUE(hasBit(tree + "/left"));
    EXPECT_FALSE(hasBit(tree + "/in/two"));
    EXPECT_TRUE(mentions(lastList(), "copied\t3\tin/two\n")) << lastList();
    EXPECT_TRUE(mentions(lastList(), ", 1 failed\n")) << lastList();
    EXPECT_FALSE(mentions(lastList(), "\tone\n")) << lastList();
}

TEST_F(ArchiveBackup, LossThatIsNotAcceptedKeepsTheBit) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    const auto into = [&](kit::Arguments options) {
        options.insert(options.begin(), {"backup", "run"});
        options.insert(options.end(), {tree, volume / "copy"});
        return runTool(options);
    };
    kit::setAttribute(tree + "/one", "user.note", "a note");
    const ToolResult lost = into({"--accept", "dos-attributes,creation-time"});
    EXPECT_EQ(1, lost.status) << lost.err;
    EXPECT_TRUE(hasBit(tree + "/one")) << lost.err;
    EXPECT_FALSE(hasBit(tree + "/in/two")) << lost.err;
    const ToolResult accepted = into({"--accept", "dos-attributes,creation-time,attribute"});
    EXPECT_EQ(0, accepted.status) << accepted.err;
    EXPECT_FALSE(hasBit(tree + "/one")) << accepted.err;
}

TEST_F(ArchiveBackup, VolumeWithoutBitsIsToldBeforeAnythingIsCopied) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    kit::writeFile(volume / "file", "content");
    const ToolResult refused = runTool({"backup", "run", volume.path(), copy});
    EXPECT_EQ(2, refused.status);
    EXPECT_TRUE(mentions(refused.err, "keeps no archive bits")) << refused.err;
    EXPECT_FALSE(kit::exists(copy));
    EXPECT_TRUE(lists().empty());
    EXPECT_EQ(2, runTool({"plan", "backup", volume.path(), copy}).status);
    const ToolResult full = runTool({"backup", "run", "--full", volume.path(), copy});
    EXPECT_EQ(0, full.status) << full.err;
    EXPECT_TRUE(mentions(full.err, "there are none to clear")) << full.err;
    EXPECT_EQ("content", kit::readFile(copy + "/file"));
}

TEST_F(ArchiveBackup, VolumeWithoutBitsThatIsMountedBelowIsOneToo) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    makeBackupDirectory(tree + "/mounted");
    ASSERT_EQ(0, ::mount(volume.path().c_str(), (tree + "/mounted").c_str(), nullptr, MS_BIND, nullptr));
    const ToolResult refused = backUp();
    EXPECT_EQ(2, refused.status);
    EXPECT_TRUE(mentions(refused.err, "/mounted: its volume keeps no archive bits")) << refused.err;
    EXPECT_FALSE(kit::exists(copy));
    EXPECT_EQ(0, backUp({"-x"}).status);
    ASSERT_EQ(0, ::umount((tree + "/mounted").c_str()));
    EXPECT_FALSE(hasBit(tree + "/one"));
}

TEST_F(ArchiveBackup, ReadOnlySourceIsToldBeforeAnythingIsCopied) {
    KIT_REQUIRE(volume, kit::Volume::loop("ext4", 16 << 20));
    makeBackupDirectory(volume / "top");
    putChanged(volume / "top/file", "changed");
    volume.setReadOnly(true);
    const ToolResult refused = runTool({"backup", "run", volume / "top", copy});
    EXPECT_EQ(2, refused.status);
    EXPECT_TRUE(mentions(refused.err, "mounted read-only")) << refused.err;
    EXPECT_FALSE(kit::exists(copy));
    const ToolResult kept = runTool({"backup", "run", "--keep-bits", volume / "top", copy});
    EXPECT_EQ(0, kept.status) << kept.err;
    EXPECT_EQ("changed", kit::readFile(copy + "/file"));
    EXPECT_TRUE(hasBit(volume / "top/file"));
}

TEST_F(ArchiveBackup, NamesOfOneFileHaveOneBit) {
    ASSERT_EQ(0, ::link((tree + "/one").c_str(), (tree + "/in/other").c_str()));
    ASSERT_EQ(0, ::link((tree + "/in/two").c_str(), (scratch / "elsewhere").c_str()));
    const ToolResult result = backUp();
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_FALSE(hasBit(tree + "/one"));
    EXPECT_EQ(kit::statOf(copy + "/one").st_ino, kit::statOf(copy + "/in/other").st_ino);
    // Another backup may wait for the bit.
    EXPECT_TRUE(hasBit(tree + "/in/two"));
    EXPECT_TRUE(
        mentions(result.err, "/in/two: has other names, which are no part of this backup; its archive bit stays"))
        << result.err;
    // Nor is one cleared of which a name did not arrive.
    setBit(tree + "/one");
    ASSERT_EQ(0, backUp({"--exclude", "/in/other"}).status);
    EXPECT_TRUE(hasBit(tree + "/one"));
}

TEST_F(ArchiveBackup, FileThatIsOpenForWritingKeepsItsBit) {
    const int writer = ::open((tree + "/one").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_LE(0, writer);
    const ToolResult result = backUp();
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.err, "/one: is open for writing; its archive bit stays")) << result.err;
    EXPECT_TRUE(hasBit(tree + "/one"));
    EXPECT_EQ("one", kit::readFile(copy + "/one"));
    EXPECT_FALSE(hasBit(tree + "/in/two"));
    ::close(writer);
    EXPECT_EQ(0, backUp().status);
    EXPECT_FALSE(hasBit(tree + "/one"));
}

// Same size and time, other content: to an update it is the same, to a backup it is not.
TEST_F(ArchiveBackup, ContentIsComparedAlsoWhereItSeemsToBeTheSame) {
    ASSERT_EQ(0, backUp({"--full"}).status);
    const struct stat before = kit::statOf(copy + "/one");
    kit::writeFile(copy + "/one", "0ne");
    const timespec times[] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, (copy + "/one").c_str(), times, 0));
    setBit(tree + "/one");
    const ToolResult result = backUp();
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("one", kit::readFile(copy + "/one"));
    EXPECT_FALSE(hasBit(tree + "/one"));
}

TEST_F(ArchiveBackup, NamesInTheListAreOnOneLine) {
    putChanged(tree + "/line\nfeed\\\xff", "x");
    ASSERT_EQ(0, backUp().status);
    EXPECT_TRUE(mentions(lastList(), "copied\t1\tline\\nfeed\\\\\\xff\n")) << lastList();
    EXPECT_FALSE(hasBit(tree + "/line\nfeed\\\xff"));
}

TEST_F(ArchiveBackup, WithoutItsListNothingIsBegun) {
    const std::string deep = scratch / std::string(240, 'n');
    const ToolResult longer = runTool({"backup", "run", tree, deep});
    EXPECT_EQ(2, longer.status);
    EXPECT_TRUE(mentions(longer.err, "name would be too long")) << longer.err;
    EXPECT_FALSE(kit::exists(deep));
    EXPECT_EQ(2, runTool({"backup", "run", tree, scratch / "none/copy"}).status);
    EXPECT_TRUE(hasBit(tree + "/one"));
}

TEST_F(ArchiveBackup, OneThatLiesInTheOtherIsRefused) {
    for (const std::string &into : {tree, tree + "/in/copy", scratch.path()}) {
        EXPECT_EQ(2, runTool({"backup", "run", tree, into}).status) << into;
        EXPECT_EQ(2, runTool({"plan", "backup", tree, into}).status) << into;
    }
    EXPECT_EQ(2, backUp({"--full", "--archive-bit"}).status);
    EXPECT_TRUE(hasBit(tree + "/one"));
}

TEST_F(ArchiveBackup, PlanTellsAllOfItAndChangesNothing) {
    ASSERT_EQ(0, ::link((tree + "/one").c_str(), (tree + "/in/other").c_str()));
    ASSERT_EQ(0, ::link((tree + "/in/two").c_str(), (scratch / "elsewhere").c_str()));
    const auto before = kit::Fingerprint::of(scratch.path());
    const ToolResult plan = runTool({"plan", "backup", tree, copy});
    EXPECT_EQ(0, plan.status) << plan.err;
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(scratch.path()), {"accessed"}));
    EXPECT_TRUE(mentions(plan.out, ", 1 archive bit to clear, listed in " + copy + ".TIME.list; nothing was done"))
        << plan.out;
    ASSERT_TRUE(mentions(plan.out, "6 new, ")) << plan.out;
    const auto end = [](const ToolResult &told) { return told.out.substr(told.out.find("6 new, ")); };
    EXPECT_EQ(end(plan), end(backUp({"--dry-run"})));
    EXPECT_TRUE(mentions(runTool({"plan", "backup", "--full", tree, copy}).out, "7 new, "));
    const ToolResult run = backUp();
    EXPECT_EQ(0, run.status);
    EXPECT_TRUE(mentions(run.out, ", 1 archive bit cleared")) << run.out;
}

TEST_F(ArchiveBackup, VolumeThatIsFullKeepsTheBitsOfWhatDidNotFit) {
    makeBackupDirectory(copy);
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20, copy));
    for (int i = 0; i < 8; ++i) {
        putChanged(tree + "/big" + std::to_string(i), kit::pattern(200 << 10, static_cast<uint32_t>(i)));
    }
    const ToolResult full = backUp({"--accept", "all"});
    EXPECT_EQ(1, full.status) << full.err;
    int cleared = 0;
    for (int i = 0; i < 8; ++i) {
        const std::string name = "/big" + std::to_string(i);
        if (!hasBit(tree + name)) {
            ++cleared;
            EXPECT_EQ(kit::readFile(tree + name), kit::exists(copy + name) ? kit::readFile(copy + name) : "none");
        }
    }
    EXPECT_LT(0, cleared);
    EXPECT_GT(8, cleared);
}

TEST_F(ArchiveBackup, ListThatCannotBeWrittenClearsNothing) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(256 << 10));
    makeBackupDirectory(volume / "copy");
    KIT_REQUIRE(inner, kit::Volume::tmpfs(64 << 20, volume / "copy"));
    // Names that take more than the list's volume has.
    for (int i = 0; i < 1500; ++i) {
        putChanged(tree + "/" + std::string(200, 'x') + std::to_string(i), "x");
    }
    const ToolResult result = runTool({"backup", "run", tree, volume / "copy"});
    EXPECT_EQ(1, result.status) << result.err;
    EXPECT_TRUE(mentions(result.err, "; no archive bit is cleared")) << result.err;
    EXPECT_TRUE(hasBit(tree + "/one"));
    EXPECT_EQ("one", kit::readFile(volume / "copy/one"));
    EXPECT_EQ(std::vector<std::string>{"copy"}, kit::namesIn(volume.path()));
}

TEST_F(ArchiveBackup, SeveralProcessesClearTheSameBits) {
    for (int i = 0; i < 60; ++i) {
        makeBackupDirectory(tree + "/d" + std::to_string(i));
        putChanged(tree + "/d" + std::to_string(i) + "/file", std::to_string(i));
    }
    const ToolResult result = backUp({"-j", "3"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.out, ", 62 archive bits cleared")) << result.out;
    EXPECT_EQ("", runTool({"compare", "--exclude", "old", tree, copy}).out);
}

// What has arrived by then is saved.
TEST_F(ArchiveBackup, CtrlCClearsTheBitsOfWhatHasArrived) {
    constexpr int number = 8;
    const auto name = [](int i) { return "/big" + std::to_string(i); };
    for (int i = 0; i < number; ++i) {
        putChanged(tree + name(i), kit::pattern(1 << 20, static_cast<uint32_t>(i)));
    }
    const auto arrived = [&] {
        int count = 0;
        for (int i = 0; i < number; ++i) {
            count += kit::exists(copy + name(i)) ? 1 : 0;
        }
        return count;
    };
    ToolOnTerminal tool({"backup", "run", "--bwlimit", "500K", tree, copy});
    for (int i = 0; arrived() == 0 && i < 30'000; ++i) {
        ::usleep(10'000);
    }
    tool.type("\x03");
    const ToolResult result = tool.finish();
    EXPECT_EQ(130, result.status) << result.out;
    EXPECT_LT(0, arrived());
    EXPECT_GT(number, arrived());
    for (int i = 0; i < number; ++i) {
        const bool there = kit::exists(copy + name(i));
        EXPECT_NE(there, hasBit(tree + name(i))) << i << result.out;
        EXPECT_EQ(there, mentions(lastList(), "\t" + name(i).substr(1) + "\n")) << lastList();
    }
    EXPECT_EQ(0, backUp().status);
    EXPECT_EQ(number, arrived());
    EXPECT_FALSE(hasBit(tree + name(0)) || hasBit(tree + name(number - 1)));
}

// --- stopped, refused and met anywhere ---

const std::map<std::string, std::string> kChanged = {
    {"/one", "one, new"}, {"/in/two", "two"}, {"/in/first", "of two names"}, {"/second", "of two names"}};

struct BackupScene {
    BackupScene() {
        for (const char *name : {"/tree", "/tree/in", "/tree/@eaDir", "/copy"}) {
            EXPECT_EQ(0, ::mkdir((scratch.path() + name).c_str(), 0755));
        }
        for (const char *name : {"/one", "/in/two", "/in/first"}) {
            putChanged(tree + name, kChanged.at(name));
        }
        EXPECT_EQ(0, ::link((tree + "/in/first").c_str(), (tree + "/second").c_str()));
        kit::writeFile(tree + "/@eaDir/one@VexoEAStream", stream::bytes({{"comment", "new"}}));
        kit::writeFile(tree + "/untouched", "saved before");
        kit::writeFile(copy + "/one", "one, old");
        // Nobody has changed anything in the very moment that this begins.
        const timespec times[] = {{1'700'000'000, 1}, {1'700'000'000, 1}};
        for (const auto &[name, content] : kChanged) {
            EXPECT_EQ(0, ::utimensat(AT_FDCWD, (tree + name).c_str(), times, 0));
        }
    }
    kit::Arguments arguments() const { return {"backup", "run", tree, copy}; }
    // What has no bit and is not in the backup, or not in a list.
    std::string lost() const {
        std::string listed, wrong;
        for (const std::string &name : kit::namesIn(scratch.path())) {
            if (name.ends_with(".list")) {
                const std::string text = kit::readFile(scratch / name);
                wrong += text.ends_with(" failed\n") ? "" : name + " is not whole; ";
                listed += text;
            }
        }
        for (const auto &[name, content] : kChanged) {
            if (!hasBit(tree + name)) {
                const bool there = kit::exists(copy + name) && kit::readFile(copy + name) == kit::readFile(tree + name);
                wrong += there ? "" : name + " has no bit, and is not in the backup; ";
                wrong +=
                    listed.find("\t" + name.substr(1) + "\n") != std::string::npos ? "" : name + " is not listed; ";
            }
        }
        const std::string store = "/@eaDir/one@VexoEAStream";
        const bool stored = kit::exists(copy + store) && kit::readFile(copy + store) == kit::readFile(tree + store);
        wrong += hasBit(tree + "/one") || stored ? "" : "the store of /one is not in the backup; ";
        return wrong;
    }
    std::string differences() const {
        const ToolResult compared = runTool({"compare", "--exclude", "untouched", tree, copy});
        return compared.status == 0 ? "" : compared.out + compared.err + "status " + std::to_string(compared.status);
    }
    // Of a run that had success.
    std::string unfinished() const {
        std::string wrong = lost();
        for (const auto &[name, content] : kChanged) {
            wrong += hasBit(tree + name) ? name + " has its bit; " : "";
        }
        for (const std::string &directory : {scratch.path(), copy, copy + "/in"}) {
            for (const std::string &name : kit::namesIn(directory)) {
                wrong += name.starts_with(".vexofileop") ? name + " is left; " : "";
            }
        }
        return wrong + differences();
    }
    faults::Outcome supervised(const faults::Plan &plan) const {
        return faults::supervise(plan, [&](faults::Window &window) {
            std::vector<std::string> words = arguments();
            words.insert(words.begin(), VEXOFILEOP_TOOL);
            std::vector<char *> pointers;
            for (std::string &word : words) {
                pointers.push_back(word.data());
            }
            pointers.push_back(nullptr);
            window.open();
            ::execv(VEXOFILEOP_TOOL, pointers.data());
            ::_exit(127);
        });
    }

    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", copy = scratch / "copy";
};

class ArchiveBackupSweep : public ::testing::Test {
  protected:
    void SetUp() override {
        KIT_NOT_SANITIZED();
        if (const std::string why = ::geteuid() != 0 ? "only root makes stores" : faults::unavailable(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        const BackupScene whole;
        calls = whole.supervised({}).calls;
        ASSERT_LT(200U, calls.size());
        ASSERT_EQ("", whole.unfinished());
    }
    // A sample of the calls, closer from where the list gets its name on, and all of them around the going of a bit.
    std::vector<size_t> points(size_t sample) const {
        const bool full = std::getenv("VEXO_FULL") != nullptr; // NOLINT(concurrency-mt-unsafe)
        const auto listed = std::ranges::find(calls, SYS_linkat, &faults::SystemCall::number);
        const auto begin = static_cast<size_t>(listed - calls.begin());
        const size_t before = full ? 1 : std::max<size_t>(1, 2 * begin / sample),
                     behind = full ? 1 : std::max<size_t>(1, 2 * (calls.size() - begin) / sample);
        std::set<size_t> found;
        for (size_t at = 1; at < calls.size(); at += at < begin ? before : behind) {
            found.insert(at);
        }
        constexpr size_t around = 3;
        for (size_t at = begin; at + around < calls.size(); ++at) {
            for (size_t near = at - around; calls[at].number == SYS_fsetxattr && near < at + around; ++near) {
                found.insert(near);
            }
        }
        return {found.begin(), found.end()};
    }
    std::string name(size_t at) const {
        return std::to_string(at) + " " + faults::nameOf(calls[at]) + " " + calls[at].path;
    }

    std::vector<faults::SystemCall> calls;
};

TEST_F(ArchiveBackupSweep, KilledAnywhereNoBitIsClearedOfWhatIsNotThere) {
    for (const size_t at : points(36)) {
        const BackupScene scene;
        EXPECT_FALSE(scene.supervised(faults::planAt(faults::Plan::Action::kill, calls, at)).hung) << name(at);
        EXPECT_EQ("", scene.lost()) << name(at);
        const ToolResult again = runTool(scene.arguments());
        EXPECT_EQ(0, again.status) << name(at) << again.err;
        EXPECT_EQ("", scene.unfinished()) << name(at) << again.err;
        if (HasFailure()) {
            break;
        }
    }
}

TEST_F(ArchiveBackupSweep, WhicheverCallFailsNoBitIsClearedOfWhatIsNotThere) {
    for (const size_t at : points(36)) {
        for (const int error : faults::plausibleErrors(calls[at])) {
            const BackupScene scene;
            const faults::Outcome outcome =
                scene.supervised(faults::planAt(faults::Plan::Action::fail, calls, at, error));
            EXPECT_FALSE(outcome.hung) << name(at);
            EXPECT_EQ("", scene.lost()) << name(at) << " " << error;
            const bool good = WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == 0;
            EXPECT_EQ("", good ? scene.differences() : "") << name(at) << " " << error;
            const ToolResult again = runTool(scene.arguments());
            EXPECT_EQ(0, again.status) << name(at) << again.err;
            EXPECT_EQ("", scene.unfinished()) << name(at) << again.err;
            if (HasFailure()) {
                return;
            }
        }
    }
}

// Somebody changes a file between any two calls, as a client does that waits for nobody: the bit is set with it, and
// stays, or the backup has the change.
TEST_F(ArchiveBackupSweep, ChangeAtAnyMomentKeepsItsBitOrIsInTheBackup) {
    const std::vector<std::function<void(const std::string &)>> changes = {
        [](const std::string &path) { // of the content; refused while the bit is being cleared
            const int file = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_NONBLOCK | O_CLOEXEC);
            if (file >= 0) {
                setBit(path);
                (void)!::write(file, "changed", 7);
                ::close(file);
            }
        },
        [](const std::string &path) { // of an attribute, with the bit set before
            setBit(path);
            kit::setAttribute(path, "user.note", "changed");
        },
        [](const std::string &path) { // another file under its name
            putChanged(path + ".new", "changed");
            (void)::rename((path + ".new").c_str(), path.c_str());
        }};
    for (size_t which = 0; which < changes.size(); ++which) {
        for (const size_t at : points(16)) {
            const BackupScene scene;
            const std::string path = scene.tree + "/in/two", saved = scene.copy + "/in/two";
            faults::Plan plan{.action = faults::Plan::Action::meet, .at = at};
            plan.meeting = [&] { changes[which](path); };
            EXPECT_FALSE(scene.supervised(plan).hung) << name(at);
            const bool there = kit::exists(saved) && kit::readFile(saved) == kit::readFile(path) &&
                               kit::attribute(saved, "user.note") == kit::attribute(path, "user.note");
            EXPECT_TRUE(hasBit(path) || there) << which << " " << name(at);
            EXPECT_EQ(0, runTool(scene.arguments()).status) << which << " " << name(at);
            EXPECT_EQ("", scene.unfinished()) << which << " " << name(at);
            if (HasFailure()) {
                return;
            }
        }
    }
}

// Nor does a file elsewhere lose its bit, whoever leads the way there.
TEST_F(ArchiveBackupSweep, DirectoryThatIsExchangedForALinkLeadsNowhere) {
    for (const char *const where : {"/tree/in", "/copy/in"}) {
        for (const size_t at : points(16)) {
            const BackupScene scene;
            const std::string elsewhere = scene.scratch / "elsewhere", place = scene.scratch.path() + where;
            makeBackupDirectory(elsewhere);
            for (const char *name : {"/two", "/first"}) {
                putChanged(elsewhere + name, kChanged.at(std::string("/in") + name));
            }
            const auto before = kit::Fingerprint::of(elsewhere);
            std::set<std::string> ignored = {"accessed"};
            if (std::string(where) == "/copy/in") {
                ignored.insert("attributes"); // whoever gives a directory its store marks it as changed, by its name
            }
            faults::Plan plan{.action = faults::Plan::Action::meet, .at = at};
            plan.meeting = [&] {
                (void)::rename(place.c_str(), (scene.scratch / "aside").c_str());
                (void)::symlink("../elsewhere", place.c_str());
            };
            EXPECT_FALSE(scene.supervised(plan).hung) << where << " " << name(at);
            EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(elsewhere), ignored)) << where << " " << name(at);
            const std::string was = kit::exists(scene.scratch / "aside") ? scene.scratch / "aside" : place;
            const std::string saved = std::string(where) == "/tree/in" ? scene.copy + "/in" : was;
            const std::string source = std::string(where) == "/tree/in" ? was : scene.tree + "/in";
            for (const char *name : {"/two", "/first"}) {
                EXPECT_TRUE(hasBit(elsewhere + name)) << where << " " << at;
                EXPECT_TRUE(hasBit(source + name) || kit::exists(saved + name)) << where << " " << at;
            }
            if (HasFailure()) {
                return;
            }
        }
    }
}

} // namespace
