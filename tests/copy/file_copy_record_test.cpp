// The platform's record of DOS attributes and creation time on the way of a copy: it is one of the "user." attributes,
// but its own steps say what the copy gets.
#include "ea/ea.h"
#include "tests/copy/file_copy_support.h"

namespace file_copy {
namespace {

using namespace std::string_literals;

constexpr char kRecord[] = "user.DOSATTRIB";
const std::string kNoTime(8, '\0');
const std::string kNewYear2021 = "\x00\x80\x35\x0c\xd1\xdf\xd6\x01"s;

std::string record(char valid, const std::string &attributes, const std::string &time) {
    return "\0\0\5\0\5\0\0\0"s + valid + "\0\0\0"s + attributes + time;
}

class FileCopyRecord : public EveryDoor {
  protected:
    static VLIBCStat look(const std::string &path) {
        VLIBCStat out{};
        EXPECT_EQ(0, VLIBCFileStat(path.c_str(), 0xFF, &out));
        return out;
    }
    static void expectSameTime(const timespec &expected, const timespec &got) {
        EXPECT_EQ(expected.tv_sec, got.tv_sec);
        EXPECT_EQ(expected.tv_nsec / 100, got.tv_nsec / 100); // the record's unit
    }
    void sourceHas(const std::string &value) const { kit::setAttribute(request.src, kRecord, value); }
};
INSTANTIATE_TEST_SUITE_P(, FileCopyRecord, kDoors, doorName);

// The source was made when the volume says it was.
TEST_P(FileCopyRecord, WithoutACreationTimeDoesNotTakeTheCopysAway) {
    sourceHas(record(1, "\x20\0\0\0"s, kNoTime));
    ASSERT_EQ(0, copy());
    expectSameTime(look(request.src).createTime, look(request.dst).createTime);
    EXPECT_EQ(static_cast<uint32_t>(VLIBC_ATTR_ARCHIVE), look(request.dst).attributes);
    EXPECT_EQ(0x11, kit::attribute(request.dst, kRecord).at(8)); // both are said
}

TEST_P(FileCopyRecord, WithoutAttributesLeavesTheCopysArchiveBit) {
    sourceHas(record(0x10, "\0\0\0\0"s, kNewYear2021));
    ASSERT_EQ(0, copy());
    EXPECT_EQ(static_cast<uint32_t>(VLIBC_ATTR_ARCHIVE), look(request.dst).attributes);
    EXPECT_EQ(1609459200, look(request.dst).createTime.tv_sec);
}

// The steps set attributes and clear none but the lock.
TEST_P(FileCopyRecord, OfAReplacedFileKeepsWhatTheStepsDoNotClear) {
    kit::writeFile(request.dst, "old");
    kit::setAttribute(request.dst, kRecord, record(1, "\2\0\0\0"s, kNoTime)); // hidden
    sourceHas(record(1, "\4\0\0\0"s, kNoTime));                               // system
    request.overwrite = 1;
    ASSERT_EQ(0, copy());
    EXPECT_EQ(static_cast<uint32_t>(VLIBC_ATTR_ARCHIVE | VLIBC_ATTR_HIDDEN | VLIBC_ATTR_SYSTEM),
              look(request.dst).attributes);
}

TEST_P(FileCopyRecord, BringsTheBitsOfOthers) {
    sourceHas(record(0x11, "\1\x30\0\0"s, kNewYear2021)); // read-only, offline, not to be indexed
    ASSERT_EQ(0, copy());
    EXPECT_EQ("\x21\x30\0\0"s, kit::attribute(request.dst, kRecord).substr(12, 4));
    EXPECT_EQ(kNewYear2021, kit::attribute(request.dst, kRecord).substr(16, 8));
}

TEST_P(FileCopyRecord, ThatIsNoneIsNotCarriedButTheOthersAre) {
    sourceHas("nothing of the kind");
    kit::setAttribute(request.src, "user.comment", "mine");
    ASSERT_EQ(0, copy());
    expectSameTime(look(request.src).createTime, look(request.dst).createTime);
    EXPECT_EQ("mine", kit::attribute(request.dst, "user.comment"));
}

// A copy of what belongs to a file sets no creation time itself; what the source's record says it brings.
TEST(EaCopyRecord, GivesADestinationWithoutOneAllOfIt) {
    const kit::ScratchDirectory scratch;
    const std::string src = scratch / "src";
    const std::string dst = scratch / "dst";
    kit::writeFile(src, "x");
    kit::writeFile(dst, "x");
    kit::setAttribute(src, kRecord, record(0x11, "\2\0\0\0"s, kNewYear2021));
    ASSERT_EQ(0, VEXOEACopy(src.c_str(), dst.c_str(), 0, 0, 1, 1, 0, 0));
    EXPECT_EQ(record(0x11, "\x22\0\0\0"s, kNewYear2021), kit::attribute(dst, kRecord));
}

TEST(EaCopyRecord, LeavesTheCreationTimeOfTheDestination) {
    const kit::ScratchDirectory scratch;
    const std::string src = scratch / "src";
    const std::string dst = scratch / "dst";
    kit::writeFile(src, "x");
    kit::writeFile(dst, "x");
    kit::setAttribute(src, kRecord, record(1, "\2\0\0\0"s, kNoTime));
    kit::setAttribute(dst, kRecord, record(0x10, "\0\0\0\0"s, kNewYear2021));
    ASSERT_EQ(0, VEXOEACopy(src.c_str(), dst.c_str(), 0, 0, 1, 1, 0, 0));
    EXPECT_EQ(record(0x11, "\x22\0\0\0"s, kNewYear2021), kit::attribute(dst, kRecord));
}

} // namespace
} // namespace file_copy
