// Repairing resource files that hold attributes.
#include "ea/ea.h"
#include "tests/ea/item_store.h"
#include "tests/kit/behaviour.h"

#include <cerrno>

namespace {

using namespace item_store;

class FixErrorAd : public kit::Behaviour {
  protected:
    void SetUp() override {
        file = {scratch.path(), "file"};
        kit::writeFile(file.path(), "data");
        makeDirectories(file);
        kit::Behaviour::SetUp();
        KIT_NEEDS_TO_MAKE_STORES();
    }
    void TearDown() override {
        kit::Faults::reset();
        EXPECT_FALSE(kit::exists(file.resource() + "Tmp"));
        kit::Behaviour::TearDown();
    }
    int fix() const { return VEXOEAFixErrorAD(file.path().c_str()); }
    Items all() const { return read(file, kEaDirectory); }

    Place file;
    const std::string info = kit::pattern(32, 4);
    const stream::Attributes attributes = {{"a", "1"}, {"b", kit::pattern(3000)}};
    const std::string wrong = stream::bytes(attributes, 500, info) + kit::pattern(500, 8);
};

TEST_F(FixErrorAd, AttributesGoIntoTheStream) {
    kit::writeFile(file.resource(), wrong);
    EXPECT_EQ(0, fix()) << kit::Log::all();
    EXPECT_EQ((Items{info, kit::pattern(500, 8), {attributes.begin(), attributes.end()}, {}, false}), all());
    EXPECT_EQ(582u, kit::readFile(file.resource()).size());
}

TEST_F(FixErrorAd, AttributesJoinThoseOfTheStream) {
    kit::writeFile(file.resource(), wrong);
    kit::writeFile(file.stream(), stream::bytes({{"a", "old"}, {"c", "3"}}));
    EXPECT_EQ(0, fix());
    EXPECT_EQ((std::map<std::string, std::string>{{"a", "1"}, {"b", kit::pattern(3000)}, {"c", "3"}}),
              all().attributes);
}

TEST_F(FixErrorAd, FileWithoutAttributesMakesNoStream) {
    kit::writeFile(file.resource(), resourceBytes(info, "fork"));
    EXPECT_EQ(0, fix());
    EXPECT_EQ((Items{info, "fork", {}, {}, false}), all());
    EXPECT_FALSE(kit::exists(file.stream()));
}

TEST_F(FixErrorAd, EmptyFileNeedsNoRepair) {
    kit::writeFile(file.resource(), "");
    EXPECT_EQ(0, fix());
    EXPECT_EQ("", kit::readFile(file.resource()));
}

TEST_F(FixErrorAd, RemainsOfAnEarlierRepairAreNotTaken) {
    kit::writeFile(file.resource() + "Tmp", kit::pattern(9000));
    kit::writeFile(file.resource(), "");
    EXPECT_EQ(0, fix());
    EXPECT_EQ("", kit::readFile(file.resource()));
    kit::writeFile(file.resource() + "Tmp", kit::pattern(9000));
    kit::writeFile(file.resource(), wrong);
    EXPECT_EQ(0, fix());
    EXPECT_EQ(582u, kit::readFile(file.resource()).size());
}

TEST_F(FixErrorAd, MissingFileAndBadPathsFail) {
    EXPECT_FAILS(fix(), 0x0900);
    EXPECT_FAILS(VEXOEAFixErrorAD(nullptr), 0x0D00);
    EXPECT_FAILS(VEXOEAFixErrorAD(""), 0x0D00);
    EXPECT_FAILS(VEXOEAFixErrorAD(std::string(4094, 'x').c_str()), 0xC300);
}

TEST_F(FixErrorAd, PathWithoutRoomForTheTemporaryFileFails) {
    std::string path;
    while (path.size() < 4074) {
        path += "/d";
    }
    EXPECT_FAILS(VEXOEAFixErrorAD(path.c_str()), 0xC300);
    EXPECT_STREQ("ea/ea_fix_error_ad.c", VLIBCErrorGetFile());
}

TEST_F(FixErrorAd, FailedStepsLeaveTheirCodes) {
    struct FailedStep {
        const char *function;
        std::string path;
        int skip;
        uint32_t code;
    };
    for (const FailedStep &row : {FailedStep{"open", file.resource(), 0, 0x0900},
                                  FailedStep{"open", file.stream(), 0, 0x0900}, FailedStep{"rename", "", 0, 0x2800}}) {
        ::unlink(file.stream().c_str());
        kit::writeFile(file.resource(), wrong);
        VLIBCErrSetEx(0, "", 0);
        kit::Faults::fail(row.function, EIO, row.path, row.skip);
        EXPECT_FAILS(fix(), row.code);
        EXPECT_EQ(wrong, kit::readFile(file.resource()));
        kit::Faults::reset();
    }
}

TEST_F(FixErrorAd, MalformedFileStaysAsItIs) {
    std::string versionOne = wrong;
    versionOne.replace(4, 4, adouble_bytes::number(0x00010000, 4));
    std::string magic = wrong;
    magic.replace(0, 4, "junk");
    std::string manyRecords = wrong;
    manyRecords.replace(118, 2, "\xff\xff");
    std::string forkBeyond = wrong.substr(0, wrong.size() - 1);
    for (const std::string &bytes :
         {versionOne, magic, manyRecords, forkBeyond, wrong.substr(0, 25), wrong.substr(0, 40)}) {
        kit::writeFile(file.resource(), bytes);
        EXPECT_EQ(-1, fix()) << bytes.size();
        EXPECT_EQ(bytes, kit::readFile(file.resource()));
        EXPECT_FALSE(kit::exists(file.resource() + "Tmp"));
    }
}

TEST_F(FixErrorAd, LosesNothingWhenAStepFails) {
    for (const char *function : {"open", "read", "pread", "write", "pwrite", "lseek", "fcntl", "rename", "ftruncate",
                                 "fstat", "stat", "mkdir", "chmod", "unlink"}) {
        for (int skip = 0; skip < 100; ++skip) {
            ::unlink(file.stream().c_str());
            kit::writeFile(file.resource(), wrong);
            kit::Faults::fail(function, ENOSPC, {}, skip);
            const int result = fix();
            const int calls = kit::Faults::count(function);
            kit::Faults::reset();
            const Items now = all();
            if (kit::readFile(file.resource()) != wrong) { // repaired, or the file is as it was
                EXPECT_EQ((std::map<std::string, std::string>(attributes.begin(), attributes.end())), now.attributes)
                    << function << skip;
            }
            EXPECT_EQ(info, now.finderInfo) << function << skip;
            EXPECT_EQ(kit::pattern(500, 8), now.fork) << function << skip;
            ::unlink((file.resource() + "Tmp").c_str()); // where unlink() itself was made to fail
            if (calls <= skip) {
                EXPECT_EQ(0, result);
                break;
            }
        }
    }
}

} // namespace
