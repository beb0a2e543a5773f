// The AppleDouble conversion, with the results and modes that the copies do not show.
#include "ea/carry/conversion.h"
#include "tests/ea/item_store.h"
#include "tests/kit/behaviour.h"

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

namespace {

using vexo::convert_apple_double;
using vexo::ConvertMode;
using namespace item_store;

constexpr ConvertMode kModes[] = {ConvertMode::checked, ConvertMode::plain, ConvertMode::as_is,
                                  ConvertMode::checked_as_is};

class Convert : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        from = scratch / "from";
        to = scratch / "to";
    }
    int convert(ConvertMode mode = ConvertMode::plain) const {
        return convert_apple_double(from.c_str(), to.c_str(), mode);
    }
    Items result() const {
        Items items;
        readDouble(content(to), items);
        return items;
    }

    std::string from, to;
};

TEST_F(Convert, NamesOfTheWorkingDirectoryAreCheckedInTwoModes) {
    processMayChange();
    ASSERT_EQ(0, ::chdir(scratch.path().c_str()));
    kit::writeFile("source", resourceBytes("", "fork"));
    for (const ConvertMode mode : kModes) {
        const bool checks = mode == ConvertMode::checked || mode == ConvertMode::checked_as_is;
        for (const char *name : {"._Icon\r", "._ICON\r", "._icon\r"}) {
            EXPECT_EQ(checks ? -32 : 0, convert_apple_double("source", name, mode));
            EXPECT_EQ(!checks, kit::exists(name));
            EXPECT_EQ(0, convert_apple_double("source", (scratch.path() + "/" + name).c_str(), mode)) << "absolute";
            ::unlink(name);
        }
        for (const char character : std::string("\\:*?\"><|\r\n")) {
            const std::string name = std::string("._a") + character + "b";
            EXPECT_EQ(checks ? -33 : 0, convert_apple_double("source", name.c_str(), mode)) << name;
            EXPECT_EQ(0, convert_apple_double("source", (scratch.path() + "/" + name).c_str(), mode)) << name;
        }
        EXPECT_EQ(0, convert_apple_double("source", "._plain", mode));
        EXPECT_EQ(0, convert_apple_double("source", "no:prefix", mode));
    }
    ASSERT_EQ(0, ::chdir("/"));
}

TEST_F(Convert, MissingAndEmptySourcesWriteNothing) {
    for (const ConvertMode mode : {ConvertMode::checked, ConvertMode::plain}) {
        ::unlink(from.c_str());
        EXPECT_EQ(0, convert(mode));
        kit::writeFile(from, "");
        EXPECT_EQ(0, convert(mode));
        EXPECT_FALSE(kit::exists(to));
    }
}

TEST_F(Convert, FileIsCopiedAsItIsInTwoModes) {
    for (const ConvertMode mode : {ConvertMode::as_is, ConvertMode::checked_as_is}) {
        kit::writeFile(from, "anything");
        EXPECT_EQ(0, convert(mode));
        EXPECT_EQ("anything", kit::readFile(to));
    }
}

TEST_F(Convert, WritesHeaderFinderInfoAndForkExactly) {
    const std::string info = kit::pattern(32, 2);
    const std::string filler = "0123456789abcdef";
    std::string bytes = adouble_bytes::header({{4, 150, 3}, {2, 100, 5}, {9, 62, 32}, {8, 150, 0}}, 160, 0x00051607,
                                              0x00020000, filler);
    bytes.replace(62, 32, info).replace(100, 5, "fork!");
    kit::writeFile(from, bytes);
    EXPECT_EQ(0, convert());
    const std::string expected =
        adouble_bytes::header({{9, 50, 32}, {2, 82, 5}}, 50, 0x00051607, 0x00020000, filler) + info + "fork!";
    EXPECT_EQ(expected, kit::readFile(to));
}

TEST_F(Convert, LongerDestinationIsCut) {
    kit::writeFile(to, kit::pattern(9000));
    kit::writeFile(from, resourceBytes("", "fork"));
    EXPECT_EQ(0, convert());
    EXPECT_EQ(86u, kit::readFile(to).size());
}

TEST_F(Convert, BlankForkCountsAsNone) {
    kit::writeFile(from, resourceBytes(kit::pattern(32), kBlank));
    EXPECT_EQ(0, convert());
    EXPECT_EQ(82u, kit::readFile(to).size());
    std::string almost = kBlank;
    almost[20] = 'x';
    for (const std::string &fork : {almost, kBlank.substr(0, 61), kBlank.substr(1)}) {
        kit::writeFile(from, resourceBytes("", fork));
        EXPECT_EQ(0, convert());
        EXPECT_EQ(fork, result().fork);
    }
}

TEST_F(Convert, WrongMagicAndVersionsAreRefused) {
    const std::string good = resourceBytes("", "fork");
    for (const auto &[at, value] :
         {std::pair<size_t, uint32_t>{0, 0x07160500}, {0, 0}, {4, 0x00010000}, {4, 0x00030000}}) {
        VLIBCErrSetEx(0, "", 0);
        kit::writeFile(from, std::string(good).replace(at, 4, adouble_bytes::number(value, 4)));
        EXPECT_FAILS(convert(), 0x0A00);
        EXPECT_FALSE(kit::exists(to));
    }
}

TEST_F(Convert, FailuresHaveTheirNumbers) {
    kit::writeFile(from, resourceBytes("", "fork"));
    kit::Faults::fail("open", EACCES, from);
    EXPECT_EQ(-2, convert());
    kit::Faults::fail("open", EACCES, to);
    EXPECT_EQ(-2, convert());
    EXPECT_EQ(0x0900u, VLIBCErrGet());
    for (const int skip : {0, 1}) { // the head, the fork
        kit::Faults::reset();
        kit::Faults::fail("pwrite", ENOSPC, to, skip);
        EXPECT_EQ(-9, convert());
        EXPECT_EQ(0x0B00u, VLIBCErrGet());
        kit::Faults::reset();
        kit::Faults::fail("pwrite", EIO, to, skip);
        EXPECT_EQ(-5, convert());
    }
    ASSERT_EQ(0, ::mkdir((scratch / "directory").c_str(), 0755));
    EXPECT_EQ(-2, convert_apple_double((scratch / "directory").c_str(), to.c_str(), ConvertMode::plain));
}

TEST_F(Convert, NamesBelowARelativeDirectoryAreCheckedByTheirLastComponent) {
    processMayChange();
    ASSERT_EQ(0, ::chdir(scratch.path().c_str()));
    ASSERT_EQ(0, ::mkdir("._d", 0755));
    kit::writeFile("source", resourceBytes("", "fork"));
    EXPECT_EQ(-32, convert_apple_double("source", "._d/._Icon\r", ConvertMode::checked));
    EXPECT_EQ(-33, convert_apple_double("source", "._d/._a:b", ConvertMode::checked));
    EXPECT_EQ(0, convert_apple_double("source", "._d/a", ConvertMode::checked));
    EXPECT_EQ((std::vector<std::string>{"a"}), kit::namesIn("._d"));
    ASSERT_EQ(0, ::chdir("/"));
}

TEST_F(Convert, SourceThatVanishesMeanwhileIsMissing) {
    kit::writeFile(from, resourceBytes("", "fork"));
    kit::Faults::fail("open", ENOENT, from);
    EXPECT_EQ(0, convert());
    EXPECT_FALSE(kit::exists(to));
}

TEST_F(Convert, FailuresLeaveTheirCodes) {
    ASSERT_EQ(0, ::mkdir((scratch / "directory").c_str(), 0755));
    const std::string directory = scratch / "directory";
    EXPECT_EQ(-2, convert_apple_double(directory.c_str(), to.c_str(), ConvertMode::plain));
    EXPECT_EQ(0x0900u, VLIBCErrGet());
    EXPECT_FAILS(convert_apple_double(directory.c_str(), to.c_str(), ConvertMode::as_is), 0x0900);
    const std::string good = resourceBytes("", kit::pattern(100));
    for (const std::string &bytes : {good.substr(0, 25), good.substr(0, 40), good.substr(0, 100)}) {
        VLIBCErrSetEx(0, "", 0);
        kit::writeFile(from, bytes);
        EXPECT_FAILS(convert(), 0x0A00);
    }
    const std::string tail = ", cRead=18, cToRead=100, reason=Success.\n";
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "failed to read " + from + tail)) << kit::Log::all();
    kit::writeFile(from, std::string(good).replace(42, 4, adouble_bytes::number(5000, 4)));
    EXPECT_FAILS(convert(), 0x0A00);
    const std::string nothing = ", cRead=0, cToRead=100, reason=Success.\n";
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "failed to read " + from + nothing)) << kit::Log::all();
    EXPECT_NE(std::string::npos, kit::Log::all().find("(EACopyAdoubleV2) failed to read " + from + nothing));
}

TEST_F(Convert, EntriesWithoutFinderInfoGiveZeros) {
    kit::writeFile(from, adouble_bytes::header({{2, 38, 4}}, 38) + "fork");
    EXPECT_EQ(0, convert());
    EXPECT_EQ(resourceBytes("", "fork").substr(50), kit::readFile(to).substr(50));
}

TEST_F(Convert, MemoryForTheEntriesMayRunOut) {
    kit::writeFile(from, adouble_bytes::header(std::vector<adouble_bytes::Entry>(1000, {4, 50, 0}), 20000));
    kit::Faults::onlyAllocationsFrom(12000);
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "the sanitizer has the allocator";
    }
    EXPECT_FAILS(convert(), 0x0100);
    EXPECT_FALSE(kit::exists(to));
}

TEST_F(Convert, ShortTransfersGoOn) {
    kit::writeFile(from, resourceBytes("", kit::pattern(40000)));
    kit::Faults::add({.function = "pwrite", .result = 0, .path = to, .skip = 1, .answers = true});
    EXPECT_EQ(-5, convert()) << "a write of nothing does not go on for ever";
    kit::Faults::reset();
    EXPECT_EQ(0, convert());
    EXPECT_EQ(kit::pattern(40000), result().fork);
}

} // namespace
