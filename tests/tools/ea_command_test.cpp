// vexofileop ea: the extended metadata of files, by the program itself.
#include "tests/ea/adouble_bytes.h"
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tests/kit/scratch.h"
#include "tests/tools/tool_process.h"

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::runTool;
using kit::ToolResult;
using namespace std::string_literals;

class EaCommand : public testing::Test {
  protected:
    void SetUp() override {
        KIT_NEEDS_TO_MAKE_STORES();
        file = scratch / "photo.jpg";
        kit::writeFile(file, "data");
        setKind(2);
    }
    void TearDown() override { ::unsetenv("VEXOFILEOP_FSTYPES"); }
    void setKind(int code) const {
        ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=" + std::to_string(code)).c_str(), 1);
    }
    std::string stream() const { return scratch / "@eaDir/photo.jpg@VexoEAStream"; }
    ToolResult ea(const kit::Arguments &arguments) const {
        kit::Arguments all = {"ea"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return runTool(all);
    }

    kit::ScratchDirectory scratch;
    std::string file;
};

TEST_F(EaCommand, SetMakesExactlyTheFormatsBytes) {
    EXPECT_EQ(0, ea({"set", file, "a", "xy"}).status);
    const std::string expected = "\x00\x05\x16\x07\x00\x02\x00\x00"
                                 "Mac OS X        "
                                 "\x00\x02"
                                 "\x00\x00\x00\x09\x00\x00\x00\x32\x00\x00\x00\x58"
                                 "\x00\x00\x00\x02\x00\x00\x00\x8a\x00\x00\x00\x00"s +
                                 std::string(34, '\0') +
                                 "ATTR\x00\x00\x00\x00\x00\x00\x00\x8a\x00\x00\x00\x88\x00\x00\x00\x02"s +
                                 std::string(12, '\0') +
                                 "\x00\x00\x00\x01"
                                 "\x00\x00\x00\x88\x00\x00\x00\x02\x00\x00\x02"
                                 "a\x00\x00\x00\x00"
                                 "xy"s;
    ASSERT_EQ(138U, expected.size());
    EXPECT_EQ(expected, kit::readFile(stream()));
}

TEST_F(EaCommand, EveryKindKeepsGivesListsAndRemoves) {
    for (const int kind : {0, 5, 18, 1, 6, 10, 19, 22, 2, 3}) {
        setKind(kind);
        EXPECT_EQ(0, ea({"set", file, "com.example.note", "hello"}).status) << kind;
        EXPECT_EQ("hello", ea({"get", file, "com.example.note"}).out) << kind;
        EXPECT_EQ("         5  com.example.note\n", ea({"list", file}).out) << kind;
        EXPECT_EQ(0, ea({"rm", file, "com.example.note"}).status) << kind;
        EXPECT_EQ("", ea({"list", file}).out) << kind;
        EXPECT_EQ(std::vector<std::string>{"photo.jpg"}, kit::namesIn(scratch.path())) << "with the last one " << kind;
    }
}

TEST_F(EaCommand, RmLeavesTheStoresOfOtherFiles) {
    const std::string other = scratch / "other.jpg";
    kit::writeFile(other, "data");
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    ASSERT_EQ(0, ea({"set", other, "a", "2"}).status);
    EXPECT_EQ(0, ea({"rm", file, "a"}).status);
    EXPECT_FALSE(kit::exists(stream()));
    EXPECT_EQ("2", ea({"get", other, "a"}).out);
}

TEST_F(EaCommand, RmLeavesACompanionWithFinderInfo) {
    setKind(0);
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    constexpr size_t finderInfo = 50;
    kit::writeFile(scratch / "._photo.jpg", kit::readFile(scratch / "._photo.jpg").replace(finderInfo, 4, "TEXT"));
    EXPECT_EQ(0, ea({"rm", file, "a"}).status);
    EXPECT_EQ("TEXT", kit::readFile(scratch / "._photo.jpg").substr(finderInfo, 4));
}

TEST_F(EaCommand, RmOfSeveralNamesTellsWhichWasNotThere) {
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    ASSERT_EQ(0, ea({"set", file, "b", "2"}).status);
    const ToolResult result = ea({"rm", file, "a", "none"});
    EXPECT_EQ(1, result.status);
    EXPECT_NE(std::string::npos, result.err.find(file + ": none: ")) << result.err;
    EXPECT_EQ("         1  b\n", ea({"list", file}).out);
}

TEST_F(EaCommand, NativeKindUsesTheFilesOwnAttributes) {
    setKind(7);
    EXPECT_EQ(0, ea({"set", file, "user.note", "hello"}).status);
    EXPECT_EQ("hello", kit::attribute(file, "user.note"));
    EXPECT_EQ("hello", ea({"get", file, "user.note"}).out);
    EXPECT_EQ(0, ea({"rm", file, "user.note"}).status);
    EXPECT_EQ("", kit::attribute(file, "user.note"));
    EXPECT_FALSE(kit::exists(scratch / "@eaDir"));
}

TEST_F(EaCommand, ShorterValueLeavesNothingOfALongerOne) {
    EXPECT_EQ(0, ea({"set", file, "a", "a long value"}).status);
    EXPECT_EQ(0, ea({"set", file, "a", "short"}).status);
    EXPECT_EQ("short", ea({"get", file, "a"}).out);
    EXPECT_EQ(0, ea({"set", file, "a", ""}).status);
    const ToolResult empty = ea({"get", file, "a"});
    EXPECT_EQ(0, empty.status);
    EXPECT_EQ("", empty.out);
}

TEST_F(EaCommand, ValuesComeFromFilesAndHexadecimalDigits) {
    const std::string big = kit::pattern(3 << 20);
    kit::writeFile(scratch / "value", big);
    EXPECT_EQ(0, ea({"set", file, "big", "--from", scratch / "value"}).status);
    EXPECT_TRUE(big == ea({"get", file, "big"}).out);
    EXPECT_EQ(0, ea({"set", file, "bytes", "--hex", "00ff0a"}).status);
    EXPECT_EQ("\0\xff\n"s, ea({"get", file, "bytes"}).out);
    EXPECT_EQ(2, ea({"set", file, "bytes", "--hex", "0g"}).status);
    EXPECT_EQ(0, runTool({"ea", "set", file, "sent", "--from", "-"}, {.input = "by\0pipe"s}).status);
    EXPECT_EQ("by\0pipe"s, ea({"get", file, "sent"}).out);
    EXPECT_EQ(2, ea({"set", file, "big", "--from", scratch / "none"}).status);
    EXPECT_TRUE(big == ea({"get", file, "big"}).out) << "a value that cannot be read changes nothing";
}

TEST_F(EaCommand, CreateAndReplaceAreHeldTo) {
    EXPECT_EQ(2, ea({"set", "--replace", file, "a", "1"}).status);
    EXPECT_EQ(0, ea({"set", "--create", file, "a", "1"}).status);
    EXPECT_EQ(2, ea({"set", "--create", file, "a", "2"}).status);
    EXPECT_EQ("1", ea({"get", file, "a"}).out);
    EXPECT_EQ(0, ea({"set", "--replace", file, "a", "3"}).status);
    EXPECT_EQ("3", ea({"get", file, "a"}).out);
}

TEST_F(EaCommand, WhatIsNotThereHasItsMessage) {
    const ToolResult missing = ea({"get", file, "none"});
    EXPECT_EQ(2, missing.status);
    EXPECT_NE(std::string::npos, missing.err.find("0x2000")) << missing.err;
    EXPECT_FALSE(kit::exists(scratch / "@eaDir")) << "looking makes nothing";
    EXPECT_EQ(2, ea({"list", scratch / "nothing"}).status);
    EXPECT_EQ(2, ea({"get", file}).status);
    EXPECT_EQ(2, ea({}).status);
    setKind(12);
    EXPECT_NE(std::string::npos, ea({"list", file}).err.find("keeps nothing beside a file"));
}

TEST_F(EaCommand, LockedStreamIsSaidToBe) {
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    const int fd = ::open(stream().c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    ASSERT_EQ(0, ::fcntl(fd, F_SETLK, &lock));
    const ToolResult result = ea({"set", file, "a", "2"});
    EXPECT_EQ(2, result.status);
    EXPECT_NE(std::string::npos, result.err.find("0x0400")) << result.err;
    ::close(fd);
    EXPECT_EQ("1", ea({"get", file, "a"}).out);
}

TEST_F(EaCommand, ShowNamesTheFirstBadField) {
    ASSERT_EQ(0, ea({"set", file, "a", "xy"}).status);
    const ToolResult sound = ea({"show", file});
    EXPECT_EQ(0, sound.status);
    EXPECT_NE(std::string::npos, sound.out.find("attribute a: 2 bytes")) << sound.out;
    std::string bytes = kit::readFile(stream());
    bytes[123] = '\x70'; // the value's length
    bytes[124] = '\x70';
    kit::writeFile(stream(), bytes);
    const ToolResult bad = ea({"show", file});
    EXPECT_EQ(2, bad.status);
    EXPECT_NE(std::string::npos, bad.out.find("malformed: the value of attribute a ends at")) << bad.out;
    EXPECT_EQ(bytes, kit::readFile(stream()));
    EXPECT_EQ(2, ea({"show", stream()}).status) << "the store itself";
    const ToolResult json = ea({"show", "--json", file});
    EXPECT_NE(std::string::npos, json.out.find(R"("sound":false)")) << json.out;
}

TEST_F(EaCommand, DiffDoesNotSeeTheStorage) {
    ::unsetenv("VEXOFILEOP_FSTYPES");
    const std::string other = scratch / "fat";
    ASSERT_EQ(0, ::mkdir(other.c_str(), 0755));
    ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=2:" + other + "=0").c_str(), 1);
    kit::writeFile(other + "/photo.jpg", "data");
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    EXPECT_EQ(1, ea({"diff", file, other + "/photo.jpg"}).status);
    EXPECT_EQ(0, ea({"copy", file, other + "/photo.jpg"}).status);
    EXPECT_TRUE(kit::exists(other + "/._photo.jpg"));
    const ToolResult same = ea({"diff", file, other + "/photo.jpg"});
    EXPECT_EQ(0, same.status) << same.out;
    ASSERT_EQ(0, ea({"set", other + "/photo.jpg", "a", "2"}).status);
    EXPECT_EQ("attribute a differs: 1 and 1 bytes\n", ea({"diff", file, other + "/photo.jpg"}).out);
    EXPECT_EQ(2, ea({"diff", file, scratch / "none"}).status);
}

TEST_F(EaCommand, CopyOntoItselfIsRefusedByWhateverName) {
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    ASSERT_EQ(0, ::link(file.c_str(), (scratch / "hard").c_str()));
    ASSERT_EQ(0, ::symlink(".", (scratch / "here").c_str()));
    for (const std::string &other : {file, scratch / "./photo.jpg", scratch / "hard", scratch / "here/photo.jpg"}) {
        for (const kit::Arguments &words : {kit::Arguments{"copy"}, {"copy", "--move"}}) {
            kit::Arguments all = words;
            all.insert(all.end(), {file, other});
            const ToolResult result = ea(all);
            EXPECT_EQ(2, result.status) << other;
            EXPECT_NE(std::string::npos, result.err.find("source and destination are one file")) << result.err;
        }
    }
    EXPECT_EQ("         1  a\n", ea({"list", file}).out);
    EXPECT_EQ(1U, kit::namesIn(scratch / "@eaDir").size());
}

// Of each kind of volume to each that keeps stores in files.
TEST_F(EaCommand, CopyReplacesWhatHasTheSameNameAndLeavesTheRest) {
    ::unsetenv("VEXOFILEOP_FSTYPES");
    for (const int from : {0, 1, 2}) {
        for (const int to : {0, 1, 2}) {
            for (const bool move : {false, true}) {
                const kit::ScratchDirectory one;
                const kit::ScratchDirectory two;
                ::setenv(
                    "VEXOFILEOP_FSTYPES",
                    (one.path() + "=" + std::to_string(from) + ":" + two.path() + "=" + std::to_string(to)).c_str(), 1);
                const std::string source = one / "a";
                const std::string target = two / "b";
                kit::writeFile(source, "data");
                kit::writeFile(target, "others");
                ASSERT_EQ(0, ea({"set", source, "both", "of the source"}).status);
                ASSERT_EQ(0, ea({"set", source, "brought", "1"}).status);
                ASSERT_EQ(0, ea({"set", target, "both", "of the destination"}).status);
                ASSERT_EQ(0, ea({"set", target, "own", "2"}).status);
                const kit::Arguments copy =
                    move ? kit::Arguments{"copy", "--move", source, target} : kit::Arguments{"copy", source, target};
                const ToolResult result = ea(copy);
                const std::string which = std::to_string(from) + " to " + std::to_string(to) + (move ? " moved" : "");
                EXPECT_EQ(0, result.status) << which << result.err;
                EXPECT_EQ("of the source", ea({"get", target, "both"}).out) << which;
                EXPECT_EQ("1", ea({"get", target, "brought"}).out) << which;
                EXPECT_EQ("2", ea({"get", target, "own"}).out) << which;
                EXPECT_EQ(move ? "" : "1", ea({"get", source, "brought"}).out) << which;
                EXPECT_EQ("others", kit::readFile(target)) << which;
                EXPECT_EQ(2U, kit::namesIn(two.path()).size()) << which << ": no private names";
            }
        }
    }
}

TEST_F(EaCommand, CopyKeepsTheForkAndFinderInfoThatOnlyTheDestinationHas) {
    const std::string other = scratch / "other";
    const std::string fork = kit::pattern(5000);
    kit::writeFile(other, "data");
    setKind(0);
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    kit::writeFile(scratch / "._other",
                   stream::bytes({{"own", "2"}}, static_cast<uint32_t>(fork.size()), "TEXTttxt") + fork);
    EXPECT_EQ(0, ea({"copy", file, other}).status);
    const std::string bytes = kit::readFile(scratch / "._other");
    EXPECT_TRUE(bytes.ends_with(fork));
    EXPECT_EQ("TEXTttxt", bytes.substr(50, 8));
    EXPECT_EQ("2", ea({"get", other, "own"}).out);
    EXPECT_EQ("1", ea({"get", other, "a"}).out);
    setKind(1);
    const auto resource = [&](const std::string &name) { return scratch / ("@eaDir/" + name + "@VexoResource"); };
    const auto bytesOf = [](const std::string &info, const std::string &rest) {
        return stream::number(0x00051607, 4) + stream::number(0x00020000, 4) + "Mac OS X        " +
               stream::number(2, 2) + stream::number(9, 4) + stream::number(50, 4) + stream::number(32, 4) +
               stream::number(2, 4) + stream::number(82, 4) + stream::number(rest.size(), 4) + info +
               std::string(32 - info.size(), '\0') + rest;
    };
    ASSERT_EQ(0, ::mkdir((scratch / "@eaDir").c_str(), 0777));
    kit::writeFile(resource("photo.jpg"), bytesOf("PICTgimp", ""));
    kit::writeFile(resource("other"), bytesOf("TEXTttxt", fork));
    EXPECT_EQ(0, ea({"copy", file, other}).status);
    EXPECT_EQ(bytesOf("PICTgimp", fork), kit::readFile(resource("other"))) << "the Finder Info is the source's";
    kit::writeFile(resource("photo.jpg"), bytesOf("", "a fork"));
    EXPECT_EQ(0, ea({"copy", file, other}).status);
    EXPECT_EQ(bytesOf("PICTgimp", "a fork"), kit::readFile(resource("other"))) << "the fork is the source's";
}

TEST_F(EaCommand, CopyToAMalformedStoreNamesItAndDoesNothing) {
    KIT_NEEDS_TO_MAKE_STORES();
    const std::string other = scratch / "other", resource = scratch / "@eaDir/other@VexoResource";
    setKind(2);
    kit::writeFile(other, "x");
    ASSERT_EQ(0, ea({"set", file, "one", "1"}).status);
    ASSERT_EQ(0, ea({"set", other, "two", "2"}).status);
    kit::writeFile(resource, "garbage");
    const ToolResult result = ea({"copy", file, other});
    EXPECT_EQ(2, result.status);
    EXPECT_NE(std::string::npos, result.err.find(file + ": nothing was done; the destination " + other +
                                                 ": the resource file is malformed"))
        << result.err;
    EXPECT_EQ("garbage", kit::readFile(resource));
    EXPECT_EQ("         1  two\n", ea({"list", other}).out);
    // Of the source it is said without another name.
    ASSERT_EQ(0, ::rename(resource.c_str(),
                          (scratch / "@eaDir/" + file.substr(file.rfind('/') + 1) + "@VexoResource").c_str()));
    EXPECT_NE(std::string::npos, ea({"copy", file, other}).err.find(file + ": the resource file is malformed"));
}

TEST_F(EaCommand, RenameToAnotherKindOfVolumeIsRefused) {
    const std::string other = scratch / "fat";
    ASSERT_EQ(0, ::mkdir(other.c_str(), 0755));
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=2:" + other + "=0").c_str(), 1);
    ASSERT_EQ(0, ::rename(file.c_str(), (other + "/photo.jpg").c_str()));
    const ToolResult result = ea({"rename", file, other + "/photo.jpg"});
    EXPECT_EQ(2, result.status);
    EXPECT_NE(std::string::npos, result.err.find("nothing was done")) << result.err;
    EXPECT_TRUE(kit::exists(stream()));
    EXPECT_EQ(0, ea({"rename", scratch / "nobody", other + "/photo.jpg"}).status) << "nothing is kept for that one";
}

// Of an EA-directory file the flag, which a stock machine keeps as the DOS attribute read-only, or the AFP attributes;
// of a file-EA file those in its attribute; elsewhere the right to write.
TEST_F(EaCommand, DiffSeesTheLockAsAfpClientsDo) {
    const std::string other = scratch / "other.jpg";
    kit::writeFile(other, "data");
    const auto locked = [&] { return ea({"diff", file, other}).out == "only the first is locked\n"; };
    constexpr size_t afpWord = 372;
    for (const auto &[word, isLocked] :
         {std::pair("\x01\x00"s, true), {"\x00\x80"s, true}, {"\x00\x20"s, true}, {"\x00\x40"s, false}}) {
        kit::setAttribute(file, "user.netatalk.Metadata", adouble_bytes::metadata().replace(afpWord, 2, word));
        EXPECT_EQ(isLocked, locked());
    }
    kit::setAttribute(file, "user.netatalk.Metadata", adouble_bytes::metadata());
    ASSERT_EQ(0, ::chmod(file.c_str(), 0444));
    EXPECT_FALSE(locked()) << "the right to write is no lock here";
    setKind(0);
    EXPECT_TRUE(locked());
    ASSERT_EQ(0, ::chmod(file.c_str(), 0644));
    EXPECT_FALSE(locked());
    setKind(1);
    ASSERT_EQ(0, ::mkdir((scratch / "@eaDir").c_str(), 0777));
    kit::writeFile(scratch / "@eaDir/photo.jpg@VexoResource",
                   adouble_bytes::metadata(741).replace(afpWord, 2, "\x01\x00"s));
    EXPECT_TRUE(locked());
    kit::writeFile(scratch / "@eaDir/photo.jpg@VexoResource", adouble_bytes::metadata(741));
    EXPECT_FALSE(locked());
    // Version 5 twice, attributes valid, read-only.
    kit::setAttribute(file, "user.DOSATTRIB", "\0\0\5\0\5\0\0\0\1\0\0\0\1\0\0\0\0\0\0\0\0\0\0\0"s);
    EXPECT_TRUE(locked());
}

TEST_F(EaCommand, RenameReplacesWhatIsKeptUnderTheNewName) {
    const std::string renamed = scratch / "other.jpg";
    kit::writeFile(renamed, "old");
    ASSERT_EQ(0, ea({"set", renamed, "of-the-old-one", "1"}).status);
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    ASSERT_EQ(0, ::rename(file.c_str(), renamed.c_str()));
    EXPECT_EQ(0, ea({"rename", file, renamed}).status);
    EXPECT_EQ("         1  a\n", ea({"list", renamed}).out);
    EXPECT_NE(std::string::npos, ea({"rename", "--help"}).out.find("under NEW already is replaced"));
}

TEST_F(EaCommand, RemoveTakesWhatAFileThatIsGoneLeftBehind) {
    for (const int kind : {2, 1, 0}) {
        setKind(kind);
        kit::writeFile(file, "data");
        ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
        ASSERT_EQ(0, ::unlink(file.c_str()));
        EXPECT_EQ(0, ea({"remove", file}).status) << kind;
        EXPECT_TRUE(kit::namesIn(scratch.path()).empty()) << kind;
        const ToolResult nothing = ea({"remove", file});
        EXPECT_EQ(2, nothing.status) << kind;
        EXPECT_NE(std::string::npos, nothing.err.find("no such file, and nothing is kept for one")) << nothing.err;
    }
}

TEST_F(EaCommand, RemoveDoesNotClaimToRemoveNativeAttributes) {
    setKind(7);
    ASSERT_EQ(0, ea({"set", file, "user.note", "1"}).status);
    const ToolResult result = ea({"remove", file});
    EXPECT_EQ(2, result.status);
    EXPECT_NE(std::string::npos, result.err.find("ea rm")) << result.err;
    EXPECT_EQ("1", kit::attribute(file, "user.note"));
}

TEST_F(EaCommand, RenameAndRemoveActOnTheMetadataOnly) {
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    const std::string renamed = scratch / "other.jpg";
    ASSERT_EQ(0, ::rename(file.c_str(), renamed.c_str()));
    EXPECT_EQ(0, ea({"rename", file, renamed}).status);
    EXPECT_EQ("1", ea({"get", renamed, "a"}).out);
    EXPECT_EQ(0, ea({"remove", renamed}).status);
    EXPECT_EQ(std::vector<std::string>{"other.jpg"}, kit::namesIn(scratch.path()));
}

TEST_F(EaCommand, RepairMovesAttributesOutOfTheResourceFile) {
    EXPECT_EQ(0, ea({"repair", file}).status) << "nothing to repair";
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    const std::string resource = scratch / "@eaDir/photo.jpg@VexoResource";
    ASSERT_EQ(0, ::rename(stream().c_str(), resource.c_str()));
    EXPECT_EQ(0, ea({"repair", file}).status);
    EXPECT_EQ("1", ea({"get", file, "a"}).out);
    kit::writeFile(resource, "no AppleDouble header");
    EXPECT_EQ(2, ea({"repair", file}).status);
}

TEST_F(EaCommand, UpgradeConvertsAndDryRunDoesNot) {
    ASSERT_EQ(0, ::mkdir((scratch / "@eaDir").c_str(), 0777));
    ASSERT_EQ(0, ::mkdir((scratch / "@eaDir/photo.jpg").c_str(), 0777));
    kit::writeFile(scratch / "@eaDir/photo.jpg/com.example.old", "value");
    const ToolResult dry = ea({"upgrade", "-r", "--dry-run", scratch.path()});
    EXPECT_EQ(0, dry.status);
    EXPECT_EQ(file + ": VexoEAStream would be converted\n", dry.out);
    EXPECT_TRUE(kit::exists(scratch / "@eaDir/photo.jpg/com.example.old"));
    EXPECT_EQ(0, ea({"upgrade", "-r", scratch.path()}).status);
    EXPECT_EQ("value", ea({"get", file, "com.example.old"}).out);
    EXPECT_FALSE(kit::exists(scratch / "@eaDir/photo.jpg"));
}

TEST_F(EaCommand, UpgradeTellsWhatItPassedOver) {
    ASSERT_EQ(0, ::mkdir((scratch / "@eaDir").c_str(), 0777));
    ASSERT_EQ(0, ::mkdir((scratch / "@eaDir/photo.jpg").c_str(), 0777));
    kit::writeFile(scratch / "@eaDir/photo.jpg/VEXO:Resource", "short");
    const ToolResult resource = ea({"upgrade", file});
    EXPECT_EQ(2, resource.status);
    EXPECT_EQ("", resource.out);
    EXPECT_NE(std::string::npos, resource.err.find("VexoResource: converted, but whether the file is locked"))
        << resource.err;
    ASSERT_EQ(0, ::mkdir((scratch / "@eaDir/photo.jpg").c_str(), 0777));
    kit::writeFile(scratch / "@eaDir/photo.jpg/com.example.old", "value");
    kit::writeFile((scratch / "@eaDir/photo.jpg/") + std::string(255, 'x'), "a longer name than a stream takes");
    kit::writeFile(scratch / "@eaDir/photo.jpg/cover APIC.png", "of another service");
    const ToolResult attributes = ea({"upgrade", file});
    EXPECT_EQ(2, attributes.status);
    EXPECT_NE(std::string::npos, attributes.err.find("VexoEAStream: not all of it could be converted"))
        << attributes.err;
    ASSERT_EQ(0, ::unlink(((scratch / "@eaDir/photo.jpg/") + std::string(255, 'x')).c_str()));
    EXPECT_EQ("", ea({"upgrade", "--dry-run", file}).out) << "what is left is of another service";
}

// The old layout of photo.jpg with eight attributes.
void makeOldStore(const std::string &directory) {
    ::mkdir((directory + "/@eaDir").c_str(), 0777);
    ASSERT_EQ(0, ::mkdir((directory + "/@eaDir/photo.jpg").c_str(), 0777));
    for (char name = 'a'; name <= 'h'; ++name) {
        kit::writeFile(directory + "/@eaDir/photo.jpg/" + name, std::string(40, name));
    }
}

TEST_F(EaCommand, UpgradeGoesOnWhereAStoppedOneWas) {
    for (const char *name : {"b", "c", "e"}) {
        ASSERT_EQ(0, ea({"set", file, name, std::string(40, *name)}).status);
    }
    makeOldStore(scratch.path());
    const ToolResult result = ea({"upgrade", file});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ(file + ": VexoEAStream converted\n", result.out);
    for (char name = 'a'; name <= 'h'; ++name) {
        EXPECT_EQ(std::string(40, name), ea({"get", file, {name}}).out) << name;
    }
    EXPECT_FALSE(kit::exists(scratch / "@eaDir/photo.jpg"));
    EXPECT_EQ("", ea({"upgrade", file}).out);
}

TEST_F(EaCommand, UpgradeKeepsBothWhereTheStreamHasAnotherValue) {
    ASSERT_EQ(0, ea({"set", file, "c", "set since"}).status);
    makeOldStore(scratch.path());
    const ToolResult result = ea({"upgrade", file});
    EXPECT_EQ(2, result.status);
    EXPECT_NE(std::string::npos, result.err.find("attribute c is there with another value")) << result.err;
    EXPECT_EQ("set since", ea({"get", file, "c"}).out);
    EXPECT_EQ(std::string(40, 'd'), ea({"get", file, "d"}).out);
    EXPECT_EQ(std::vector<std::string>{"c"}, kit::namesIn(scratch / "@eaDir/photo.jpg"));
}

TEST_F(EaCommand, UpgradeFollowsNoLink) {
    const std::string elsewhere = scratch / "elsewhere";
    ASSERT_EQ(0, ::mkdir(elsewhere.c_str(), 0755));
    makeOldStore(elsewhere);
    ASSERT_EQ(0, ::symlink((elsewhere + "/@eaDir").c_str(), (scratch / "@eaDir").c_str()));
    EXPECT_EQ("", ea({"upgrade", file}).out);
    EXPECT_EQ(8U, kit::namesIn(elsewhere + "/@eaDir/photo.jpg").size());
    EXPECT_EQ(2, ea({"set", file, "a", "1"}).status);
    EXPECT_EQ(std::vector<std::string>{"photo.jpg"}, kit::namesIn(elsewhere + "/@eaDir"));
}

TEST_F(EaCommand, SetFollowsNoLinkInPlaceOfTheStream) {
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    const std::string elsewhere = scratch / "elsewhere";
    ASSERT_EQ(0, ::rename(stream().c_str(), elsewhere.c_str()));
    ASSERT_EQ(0, ::symlink(elsewhere.c_str(), stream().c_str()));
    const std::string before = kit::readFile(elsewhere);
    EXPECT_EQ(2, ea({"set", file, "a", "2"}).status);
    EXPECT_EQ(2, ea({"rm", file, "a"}).status);
    EXPECT_EQ(before, kit::readFile(elsewhere));
    ASSERT_EQ(0, ::unlink(stream().c_str()));
    ASSERT_EQ(0, ::mkfifo(stream().c_str(), 0666));
    EXPECT_EQ(2, ea({"set", file, "a", "2"}).status);
}

// A user who may write the stream file of somebody else: it stays that one's.
TEST_F(EaCommand, SetByAnotherUserLeavesTheOwner) {
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    constexpr uid_t nobody = 65534;
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
    ASSERT_EQ(0, ::chmod(stream().c_str(), 0666));
    const ToolResult result = runTool({"ea", "set", file, "a", "a longer value"}, {.user = nobody});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("a longer value", ea({"get", file, "a"}).out);
    EXPECT_EQ(0U, kit::statOf(stream()).st_uid);
    EXPECT_EQ(1U, kit::namesIn(scratch / "@eaDir").size());
}

TEST_F(EaCommand, ValueThatNoStoreHoldsIsRefusedBeforeItIsRead) {
    kit::writeSparse(scratch / "huge", off_t{1} << 31, {});
    const ToolResult result = ea({"set", file, "a", "--from", scratch / "huge"});
    EXPECT_EQ(2, result.status);
    EXPECT_NE(std::string::npos, result.err.find("has more than 2147483647 bytes")) << result.err;
    EXPECT_FALSE(kit::exists(scratch / "@eaDir"));
}

// A device that never ends, a pipe that does not soon: neither says so before.
TEST_F(EaCommand, ValueWithoutAnEndIsRefusedInLittleMemory) {
    const rlimit before = [] {
        rlimit limit{};
        ::getrlimit(RLIMIT_AS, &limit);
        return limit;
    }();
    const bool sanitized = std::string(VEXOFILEOP_TOOL).find("asan") != std::string::npos; // which takes terabytes
    EXPECT_TRUE(kit::holdsInChild([&] {
        const rlimit little{rlim_t{400} << 20, before.rlim_max};
        ASSERT_TRUE(sanitized || ::setrlimit(RLIMIT_AS, &little) == 0);
        for (const int kind : {2, 0}) {
            setKind(kind);
            ToolResult result = ea({"set", file, "a", "--from", "/dev/zero"});
            EXPECT_EQ(2, result.status);
            EXPECT_NE(std::string::npos, result.err.find("/dev/zero has more than 67108864 bytes, and does not say how "
                                                         "many; write them into a file first"))
                << result.err;
            result = runTool({"ea", "set", file, "a", "--from", "-"}, {.input = std::string((64 << 20) + 1, 'x')});
            EXPECT_EQ(2, result.status);
            EXPECT_NE(std::string::npos, result.err.find("standard input has more than 67108864 bytes")) << result.err;
        }
        setKind(7);
        EXPECT_NE(std::string::npos,
                  ea({"set", file, "a", "--from", "/dev/zero"}).err.find("/dev/zero has more than 65536 bytes\n"));
        setKind(2);
        EXPECT_EQ(0, ea({"set", file, "empty", "--from", "/dev/null"}).status);
        EXPECT_EQ(0, ea({"set", file, "kernel", "--from", "/proc/self/comm"}).status);
        EXPECT_EQ("vexofileop\n", ea({"get", file, "kernel"}).out);
    }));
}

// From file to file, with what else the store holds.
TEST_F(EaCommand, LongValueFromAFileLeavesTheRestAsItWas) {
    KIT_NEEDS_TO_MAKE_STORES();
    const std::string fork = kit::pattern(70'000, 7), info = "TEXTttxt" + std::string(24, '\x11');
    const std::string source = scratch / "value";
    for (const int kind : {2, 0}) {
        setKind(kind);
        const std::string store = kind == 0 ? scratch / "._photo.jpg" : stream();
        ASSERT_TRUE(kind == 0 || ::mkdir((scratch / "@eaDir").c_str(), 0777) == 0);
        kit::writeFile(store, ::stream::bytes({{"first", "1"}, {"a", "old"}, {"last", "2"}},
                                              static_cast<uint32_t>(fork.size()), info) +
                                  fork);
        for (const size_t size : {size_t{3} << 20, (size_t{2} << 20) + 5}) {
            const std::string value = kit::pattern(size, 3);
            kit::writeFile(source, value);
            const ToolResult result = ea({"set", file, "a", "--from", source});
            EXPECT_EQ(0, result.status) << result.err;
            EXPECT_TRUE(value == ea({"get", file, "a"}).out) << kind;
            EXPECT_EQ("1", ea({"get", file, "first"}).out);
            EXPECT_EQ("2", ea({"get", file, "last"}).out);
            EXPECT_TRUE(kit::readFile(store).ends_with(value + fork)) << kind;
            EXPECT_NE(std::string::npos, kit::readFile(store).find(info));
        }
        EXPECT_EQ(2, ea({"set", file, "a", "--create", "--from", source}).status);
        EXPECT_EQ(2, ea({"set", file, "b", "--replace", "--from", source}).status);
        EXPECT_EQ(0, ea({"rm", file, "a"}).status);
        EXPECT_TRUE(kit::readFile(store) ==
                    stream::bytes({{"first", "1"}, {"last", "2"}}, static_cast<uint32_t>(fork.size()), info) + fork)
            << kind;
    }
}

TEST_F(EaCommand, LongValueFromAFileTakesLittleMemory) {
    KIT_NEEDS_TO_MAKE_STORES();
    if (std::string(VEXOFILEOP_TOOL).find("asan") != std::string::npos) {
        GTEST_SKIP() << "a sanitizer takes terabytes";
    }
    EXPECT_TRUE(kit::holdsInChild([&] {
        rlimit little{};
        ASSERT_EQ(0, ::getrlimit(RLIMIT_AS, &little));
        little.rlim_cur = rlim_t{200} << 20;
        ASSERT_EQ(0, ::setrlimit(RLIMIT_AS, &little));
        setKind(2);
        kit::writeFile(scratch / "value", "");
        ASSERT_EQ(0, ::truncate((scratch / "value").c_str(), off_t{150} << 20));
        const ToolResult result = ea({"set", file, "a", "--from", scratch / "value"});
        EXPECT_EQ(0, result.status) << result.err;
        EXPECT_NE(std::string::npos, ea({"list", file}).out.find("157286400  a\n"));
        ASSERT_EQ(0, ::truncate((scratch / "value").c_str(), off_t{1} << 31));
        const ToolResult refused = ea({"set", file, "a", "--from", scratch / "value"});
        EXPECT_EQ(2, refused.status);
        EXPECT_NE(std::string::npos, refused.err.find(" has more than 2147483647 bytes")) << refused.err;
    }));
}

TEST_F(EaCommand, TerminalShowsTextAsTextAndBytesAsADump) {
    ASSERT_EQ(0, ea({"set", file, "text", "Gr\xc3\xbc\xc3\x9f e"}).status);
    EXPECT_EQ("Gr\xc3\xbc\xc3\x9f e\r\n", kit::ToolOnTerminal({"ea", "get", file, "text"}).finish().out);
    ASSERT_EQ(0, ea({"set", file, "bytes", "--hex", "1b5b324a4142430a000102030405060708ff"}).status);
    EXPECT_EQ("00000000  1b 5b 32 4a 41 42 43 0a 00 01 02 03 04 05 06 07  |.[2JABC.........|\r\n"
              "00000010  08 ff                                            |..|\r\n",
              kit::ToolOnTerminal({"ea", "get", file, "bytes"}).finish().out);
    EXPECT_EQ("\x1b[2JABC\n\0\1\2\3\4\5\6\7\b\xff"s, ea({"get", file, "bytes"}).out);
}

TEST_F(EaCommand, NamesWithALineFeedAreShownSafely) {
    EXPECT_EQ(0, ea({"set", file, "a\nb", "1"}).status);
    EXPECT_EQ("         1  a\\nb\n", ea({"list", file}).out);
    const std::string odd = scratch / "odd\nname";
    kit::writeFile(odd, "");
    EXPECT_EQ(2, ea({"get", odd, "x"}).status);
    EXPECT_EQ(std::string::npos, ea({"get", odd, "x"}).err.find("odd\nname"));
}

} // namespace
