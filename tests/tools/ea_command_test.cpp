// vexofileop ea: the extended metadata of files, by the program itself.
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/tools/tool_process.h"

#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
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
    }
    EXPECT_TRUE(kit::exists(scratch / "._photo.jpg"));
    EXPECT_TRUE(kit::exists(stream()));
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

TEST_F(EaCommand, RenameAndRemoveActOnTheMetadataOnly) {
    ASSERT_EQ(0, ea({"set", file, "a", "1"}).status);
    const std::string renamed = scratch / "other.jpg";
    ASSERT_EQ(0, ::rename(file.c_str(), renamed.c_str()));
    EXPECT_EQ(0, ea({"rename", file, renamed}).status);
    EXPECT_EQ("1", ea({"get", renamed, "a"}).out);
    EXPECT_EQ(0, ea({"remove", renamed}).status);
    EXPECT_EQ(std::vector<std::string>{"other.jpg"}, kit::namesIn(scratch.path()));
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

TEST_F(EaCommand, NamesWithALineFeedAreShownSafely) {
    EXPECT_EQ(0, ea({"set", file, "a\nb", "1"}).status);
    EXPECT_EQ("         1  a\\nb\n", ea({"list", file}).out);
    const std::string odd = scratch / "odd\nname";
    kit::writeFile(odd, "");
    EXPECT_EQ(2, ea({"get", odd, "x"}).status);
    EXPECT_EQ(std::string::npos, ea({"get", odd, "x"}).err.find("odd\nname"));
}

} // namespace
