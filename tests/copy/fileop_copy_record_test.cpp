// The file-operation copy: what it takes from its record, and what it writes back into it.
#include "tests/copy/file_copy_support.h"

namespace file_copy {
namespace {

class FileOpRecord : public Scene {
  protected:
    void SetUp() override {
        Scene::SetUp();
        args = argsOf(request, callbacks);
        Callbacks::current() = &callbacks;
        kit::PlatformDouble::setType(from, 2);
        kit::PlatformDouble::setType(to, 1);
    }
    // Without the extended-attribute store, which asks for types of its own.
    int copy(uint32_t flags = 0) {
        return VEXOFileOpCopyFile(request.src.c_str(), request.dst.c_str(), flags | kNoEa, &args);
    }

    VEXOCopyArgs args{};
};

TEST_F(FileOpRecord, LookedUpTypesAreWrittenBack) {
    EXPECT_EQ(0, copy());
    EXPECT_EQ(2, args.fsTypeSrc);
    EXPECT_EQ(1, args.fsTypeDst);
}

TEST_F(FileOpRecord, AllocatedRecordGetsThemToo) {
    VEXOCopyArgs *record = VEXOCopyArgsAlloc();
    ASSERT_NE(nullptr, record);
    EXPECT_EQ(0, VEXOFileOpCopyFile(request.src.c_str(), request.dst.c_str(), kNoEa, record));
    EXPECT_EQ(2, record->fsTypeSrc);
    EXPECT_EQ(1, record->fsTypeDst);
    VEXOCopyArgsFree(record);
}

TEST_F(FileOpRecord, KnownTypesAreNotLookedUpAgain) {
    EXPECT_EQ(0, copy());
    kit::Faults::record(true);
    EXPECT_EQ(0, copy(kReplace));
    EXPECT_EQ(0, kit::Faults::count("VEXOGetFSType"));
    expectCopied();
}

TEST_F(FileOpRecord, KnownTypesDecide) {
    args.fsTypeSrc = 1;
    args.fsTypeDst = 0; // whatever the volume is
    request.dst = to + "/a:b";
    EXPECT_EQ(0, copy());
    expectCopied(to + "/a-b");
    EXPECT_EQ(1, args.fsTypeSrc);
    EXPECT_EQ(0, args.fsTypeDst);
}

// A move by rename never needs the destination's type.
TEST_F(FileOpRecord, RenameLooksUpTheSourceOnly) {
    EXPECT_EQ(0, copy(kMove));
    EXPECT_EQ(2, args.fsTypeSrc);
    EXPECT_EQ(-1, args.fsTypeDst);
}

TEST_F(FileOpRecord, FailedLookUpOfTheDestinationStaysInTheRecord) {
    kit::PlatformDouble::setType(to, -5, EIO);
    expectFailed(copy(), 0x0600);
    EXPECT_EQ(2, args.fsTypeSrc);
    EXPECT_EQ(-5, args.fsTypeDst);
    expectNoDestination();
}

TEST_F(FileOpRecord, OwnerIsTheRecords) {
    FILE_COPY_NEEDS_ROOT();
    args.uid = 2001;
    args.gid = 2002;
    EXPECT_EQ(0, copy());
    EXPECT_EQ(2001U, kit::statOf(request.dst).st_uid);
    EXPECT_EQ(2002U, kit::statOf(request.dst).st_gid);
    EXPECT_EQ(0, copy(kMove | kReplace));
    EXPECT_EQ(2001U, kit::statOf(request.dst).st_uid);
    EXPECT_EQ(2002U, kit::statOf(request.dst).st_gid);
}

TEST_F(FileOpRecord, LimitOfTheRecordHolds) {
    args.dstFsFileSizeLimit = 19999;
    expectFailed(copy(), 0xAA00);
    expectNoDestination();
    callbacks.reports.clear();
    args.dstFsFileSizeLimit = 20000;
    EXPECT_EQ(0, copy());
    expectCopied();
    EXPECT_EQ(20000U, args.dstFsFileSizeLimit);
}

TEST_F(FileOpRecord, LimitOfTheRecordHoldsOnFat) {
    args.fsTypeDst = 0;
    args.dstFsFileSizeLimit = 19999;
    expectFailed(copy(), 0xA400);
    expectNoDestination();
}

// A limit that the caller knows takes the place of the volume's own.
TEST_F(FileOpRecord, LimitOfTheRecordGoesBeforeTheVolumes) {
    const off_t size = (off_t{1} << 32) + 1;
    args.fsTypeDst = 0;
    args.dstFsFileSizeLimit = uint64_t{1} << 40;
    kit::writeSparse(request.src, size, {});
    args.readWriteData = [](void *, const char *, const char *, int *, int *, int64_t, VEXOCopyArgs *) { return 0; };
    KIT_REQUIRE(volume, kit::Volume::tmpfs(uint64_t{8} << 30));
    processAsNow();
    request.dst = volume / "target";
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(kit::exists(request.dst));
    args.dstFsFileSizeLimit = 0;
    expectFailed(copy(kReplace), 0xA400);
}

TEST_F(FileOpRecord, LimitDoesNotHoldForARename) {
    args.dstFsFileSizeLimit = 1;
    EXPECT_EQ(0, copy(kMove));
    expectCopied();
}

TEST_F(FileOpRecord, LimitLeavesTheSourceOfAMoveAcrossVolumes) {
    args.dstFsFileSizeLimit = 1;
    kit::Faults::fail("rename", EXDEV, request.src);
    expectFailed(copy(kMove), 0xAA00);
    kit::Faults::reset();
    expectSourceIntact();
    expectNoDestination();
}

TEST_F(FileOpRecord, OneRecordServesSeveralCopies) {
    for (int number = 0; number < 3; ++number) {
        request.src = from + "/source" + std::to_string(number);
        request.dst = to + "/target" + std::to_string(number);
        content = kit::pattern(1000, static_cast<uint32_t>(number));
        kit::writeFile(request.src, content);
        EXPECT_EQ(0, copy());
        expectCopied();
    }
    expectNotReported();
}

} // namespace
} // namespace file_copy
