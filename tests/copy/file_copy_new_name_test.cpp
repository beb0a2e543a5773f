// The stock rename callback: "name (n).extension", the first that is free.
#include "tests/copy/file_copy_support.h"

namespace file_copy {
namespace {

class NewName : public kit::Behaviour {
  protected:
    // The name given for one in the scratch directory, without that directory.
    std::string newName(const std::string &name) const {
        std::string out(4096, '#');
        if (Default_GenerateNewName((scratch / name).c_str(), out.data(), 4096) != 0) {
            return "failed";
        }
        out.resize(std::strlen(out.c_str()));
        const std::string prefix = scratch.path() + "/";
        EXPECT_TRUE(out.starts_with(prefix)) << out;
        return out.substr(prefix.size());
    }
};

TEST_F(NewName, NumberGoesBeforeTheExtension) {
    EXPECT_EQ("a (1).txt", newName("a.txt"));
    EXPECT_EQ("archive.tar (1).gz", newName("archive.tar.gz"));
    EXPECT_EQ("a (1) (1).txt", newName("a (1).txt"));
    EXPECT_EQ("a..b (1).c", newName("a..b.c"));
}

TEST_F(NewName, NameWithoutExtensionGetsItAtTheEnd) {
    EXPECT_EQ("name (1)", newName("name"));
    EXPECT_EQ("with blank (1)", newName("with blank"));
}

TEST_F(NewName, HiddenNameIsNoExtension) {
    EXPECT_EQ(".profile (1)", newName(".profile"));
    EXPECT_EQ(".a (1).b", newName(".a.b"));
}

TEST_F(NewName, DotInADirectoryIsNoExtension) {
    ASSERT_EQ(0, ::mkdir((scratch / "dir.d").c_str(), 0755));
    EXPECT_EQ("dir.d/name (1)", newName("dir.d/name"));
    EXPECT_EQ("dir.d/.hidden (1)", newName("dir.d/.hidden"));
    EXPECT_EQ("dir.d/a (1).b", newName("dir.d/a.b"));
}

TEST_F(NewName, PercentSignsAreText) {
    EXPECT_EQ("100%s (1).%d", newName("100%s.%d"));
}

TEST_F(NewName, ControlCharactersAndForeignBytesStay) {
    EXPECT_EQ("a\nb (1).\xff", newName("a\nb.\xff"));
}

TEST_F(NewName, TakenNumbersArePassedOver) {
    kit::writeFile(scratch / "a (1).txt", "");
    EXPECT_EQ("a (2).txt", newName("a.txt"));
    ASSERT_EQ(0, ::mkdir((scratch / "a (2).txt").c_str(), 0755));
    EXPECT_EQ("a (3).txt", newName("a.txt"));
    kit::writeFile(scratch / "a (4).txt", ""); // gaps are used
    EXPECT_EQ("a (3).txt", newName("a.txt"));
}

TEST_F(NewName, CountsTo98AndNoFurther) {
    for (int number = 1; number <= 97; ++number) {
        kit::writeFile(scratch / ("a (" + std::to_string(number) + ").txt"), "");
    }
    EXPECT_EQ("a (98).txt", newName("a.txt"));
    kit::writeFile(scratch / "a (98).txt", "");
    VLIBCErrSetEx(0x4321, "elsewhere", 7);
    EXPECT_EQ("failed", newName("a.txt"));
    EXPECT_EQ(0x4321U, VLIBCErrGet()); // no code of its own
}

// Only absence makes a name free.
TEST_F(NewName, NameThatCannotBeLookedUpIsTaken) {
    kit::Faults::fail("stat", EACCES, "a (1).txt");
    EXPECT_EQ("a (2).txt", newName("a.txt"));
    kit::Faults::reset();
    kit::Faults::failAlways("stat", EACCES);
    VLIBCErrSetEx(0x4321, "elsewhere", 7);
    EXPECT_EQ("failed", newName("a.txt"));
    EXPECT_EQ(98, kit::Faults::count("stat"));
    EXPECT_EQ(0x4321U, VLIBCErrGet());
}

TEST_F(NewName, BufferMustHoldTheNameAndItsEnd) {
    for (const auto &[name, result] : {std::pair<std::string, std::string>{"a.txt", "a (1).txt"},
                                       std::pair<std::string, std::string>{"name", "name (1)"}}) {
        const std::string path = scratch / name;
        const std::string wanted = scratch / result;
        const int length = static_cast<int>(wanted.size());
        std::string out(wanted.size() + 8, '#');
        VLIBCErrSetEx(0, "", 0);
        EXPECT_FAILS(Default_GenerateNewName(path.c_str(), out.data(), length), 0x0D00);
        EXPECT_EQ("########", out.substr(wanted.size())) << "written beyond the buffer";
        EXPECT_EQ(0, Default_GenerateNewName(path.c_str(), out.data(), length + 1));
        EXPECT_STREQ(wanted.c_str(), out.c_str());
        EXPECT_EQ("#######", out.substr(wanted.size() + 1)) << "written beyond the buffer";
    }
}

// The second digit may be what no longer fits.
TEST_F(NewName, BufferIsCheckedForEachNumber) {
    for (int number = 1; number <= 9; ++number) {
        kit::writeFile(scratch / ("a (" + std::to_string(number) + ")"), "");
    }
    const std::string path = scratch / "a";
    const int length = static_cast<int>((scratch / "a (9)").size());
    std::string out(4096, '#');
    EXPECT_FAILS(Default_GenerateNewName(path.c_str(), out.data(), length + 1), 0x0D00);
    EXPECT_EQ(0, Default_GenerateNewName(path.c_str(), out.data(), length + 2));
    EXPECT_EQ(scratch / "a (10)", out.c_str());
}

TEST_F(NewName, BufferWithoutRoomIsRefusedAndNotTouched) {
    const std::string path = scratch / "a";
    for (const int size : {0, -1}) {
        std::string out(8, '#');
        VLIBCErrSetEx(0, "", 0);
        EXPECT_FAILS(Default_GenerateNewName(path.c_str(), out.data(), size), 0x0D00);
        EXPECT_EQ("########", out);
    }
}

TEST_F(NewName, NullArgumentsAreRefused) {
    char out[4096];
    EXPECT_FAILS(Default_GenerateNewName(nullptr, out, sizeof out), 0x0D00);
    VLIBCErrSetEx(0, "", 0);
    EXPECT_FAILS(Default_GenerateNewName((scratch / "a").c_str(), nullptr, 4096), 0x0D00);
}

TEST_F(NewName, OutOfMemoryIsReported) {
    const std::string path = scratch / "a.txt";
    char out[4096];
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    const int result = Default_GenerateNewName(path.c_str(), out, sizeof out);
    kit::Faults::reset();
    EXPECT_EQ(-1, result);
    EXPECT_EQ(0x0200U, VLIBCErrGet());
}

} // namespace
} // namespace file_copy
